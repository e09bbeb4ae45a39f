// Application: what is reported about one startup entry — the file it really starts, that
// file's version-resource texts, its identity (QID), and whether Windows itself already keeps
// the entry from starting.
#pragma once

#include <cstdint>
#include <string>

#include "startup/startup_item.h"
#include "users/user_environment.h"

namespace startup {

class CFileQID;

// The version-resource texts of a file; empty where the resource lacks them.
struct ApplicationInfo {
  std::wstring description;
  std::wstring company;
  std::wstring product;
};

// The file a command line starts, through ResolveCommandTarget in `environment` (the entry's:
// the user's for a user's entry, the machine's for the machine's); false, logged, when none.
[[nodiscard]] bool GetPathFromCmdLine(const std::wstring& commandLine, std::wstring& path,
                                      const velora::utils::CEnvironment& environment);

// Environment variables expanded in `environment`, then the long form of the path; each
// failure is logged and leaves the text as far as it was converted. A null input leaves `out`
// unchanged.
void ExpandPath(const wchar_t* in, std::wstring& out, const velora::utils::CEnvironment& environment);

// The texts of the file's version resource through kyutils.dll; false, logged, when the file
// has none (or for a null path), `info` untouched.
[[nodiscard]] bool GetApplicationInfo(const wchar_t* path, ApplicationInfo& info);

class Application {
 public:
  // `qids` replaces the process-wide CFileQID (tests point it at a library of their own);
  // only applications built through the process-wide one are remembered between builds.
  explicit Application(CFileQID* qids = nullptr) : qids_(qids) {}

  // Builds the record for the item of `kind`; `state` non-zero below Windows 8 means the
  // entry was moved aside and its file is found at location + name. False when no target or
  // no version information was found, the record then incomplete and not to be reported.
  // Within a CTargetMemoScope a target is described once, whatever its number of entries.
  [[nodiscard]] bool Init(const StartupItem& item, StartupSourceKind kind, std::int32_t state);

  std::wstring path;
  std::wstring location;
  std::wstring description;
  std::wstring company;
  std::wstring product;
  bool isStore = false;
  std::wstring qid;
  bool disabledBySystem = false;

 private:
  bool FindTarget(const StartupItem& item, StartupSourceKind kind, std::int32_t state,
                  const velora::utils::CEnvironment& environment, std::wstring& target) const;
  // The target's description from the process-wide cache or built anew; false when it has none.
  bool Describe(const StartupItem& item, const std::wstring& target, const velora::utils::CEnvironment& environment);
  // Expands, reads and identifies the target; remembers the result under `cacheKey` when
  // `remember` is set.
  bool Build(const std::wstring& target, const std::wstring& itemLocation, const velora::utils::CEnvironment& environment,
             const std::wstring& cacheKey, bool remember);
  void CheckSystemState(const StartupItem& item, StartupSourceKind kind);

  CFileQID* qids_;
};

}  // namespace startup
