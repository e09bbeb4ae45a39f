// The startup entry every enumerator produces and every action consumes, the kind that ties
// an enumerator to its action object, and the two interfaces between them.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace startup {

using StartupSourceKind = std::int32_t;
inline constexpr StartupSourceKind kSourceRunKey = 0;
inline constexpr StartupSourceKind kSourceStartupFolder = 1;
inline constexpr StartupSourceKind kSourceStoreApp = 2;

// Categories under which the backup store files changed entries.
inline constexpr char kCategoryDisabled[] = "Disabled";
inline constexpr char kCategoryDelayed[] = "Delayed";
inline constexpr char kCategoryStartupDisabled[] = "StartupDisabled";
inline constexpr char kCategoryStartupDelayed[] = "StartupDelayed";

inline constexpr std::uint8_t kActionOk = 0;
inline constexpr std::uint8_t kActionFailed = 31;  // ERROR_GEN_FAILURE

struct StartupItem {
  std::wstring name;        // Run value name, or the Startup file's name with its extension
  std::wstring location;    // "ROOT\\subkey" of a Run value, or the Startup folder
  std::wstring backupPath;  // where a disabled folder entry was put aside
  std::wstring path;        // the command as stored, or the file's full path
  std::int32_t isUser = 0;  // 1 the current user's, 0 the machine's
  std::int32_t state = 0;
  std::int64_t changedTime = 0;  // seconds since 1970 when read back from the store

  // Disable and Delay fail an item without these; Enable passes over it.
  bool Actionable() const { return !name.empty() && !location.empty() && !path.empty(); }
};

using StartupItemPtr = std::shared_ptr<StartupItem>;
using StartupItemList = std::vector<StartupItemPtr>;

class IStartupAppsEnumerator {
 public:
  // Appends one item per entry found at `path`; 0 or a Windows error code.
  [[nodiscard]] virtual std::uint32_t GetStartupApps(const std::wstring& path, StartupItemList& items) = 0;
  virtual StartupSourceKind GetSourceKind() const = 0;
  virtual ~IStartupAppsEnumerator() = default;
};

class IStartupAppsActions {
 public:
  // Each returns 0 when every item succeeded, 31 when any failed; the loop never stops early.
  // `updateStorage` false touches only the registry or the file system, never the store.
  [[nodiscard]] virtual std::uint8_t Disable(const StartupItemList& items, bool updateStorage) = 0;
  [[nodiscard]] virtual std::uint8_t Enable(const StartupItemList& items, bool updateStorage) = 0;
  [[nodiscard]] virtual std::uint8_t Delay(const StartupItemList& items, bool updateStorage) = 0;
  // 0 when the entry's target still exists, 31 otherwise.
  [[nodiscard]] virtual std::uint8_t Check(const StartupItem& item) = 0;
  virtual ~IStartupAppsActions() = default;
};

}  // namespace startup
