// CEnvironment: the environment in which a startup entry's command is read. A user's entry is
// read in that user's environment, built from the user's token as Windows builds a logon's
// (the machine's variables, the user's profile folders, the user's own variables, and the
// machine's Path followed by the user's); a machine entry in the machine's environment, the
// system variables alone. A LocalSystem service never reads either from its own process
// environment, which is the service account's.
#pragma once

#include <windows.h>
#include <userenv.h>

#include <memory>
#include <string>
#include <vector>

#include "common/unique_handle.h"

namespace velora::utils {

inline constexpr DWORD kEnvironmentTextChars = 32767;

// CreateEnvironmentBlock's block.
using unique_environment_block = ky::unique_any<ky::NullHandleTraits<void*, &::DestroyEnvironmentBlock>>;

class CEnvironment {
 public:
  // The machine's environment (no token).
  static std::shared_ptr<const CEnvironment> Machine();
  // The environment of the user whose token is given; the token is kept for expansion.
  static std::shared_ptr<const CEnvironment> ForUser(std::shared_ptr<const ky::unique_handle> token);
  // An environment that cannot be had (no user is known): every lookup fails with
  // ERROR_NO_TOKEN, so that nothing falls back on the service's own variables.
  static std::shared_ptr<const CEnvironment> Unavailable();

  bool Available() const { return available_; }

  // Expands %NAME% references: 0 with `out` set, ERROR_NO_TOKEN when the environment is
  // unavailable, ERROR_FILENAME_EXCED_RANGE beyond kEnvironmentTextChars, or the system's error;
  // `out` untouched on failure. Text without '%' is returned as it is.
  [[nodiscard]] std::uint32_t Expand(const std::wstring& text, std::wstring& out) const;

  // The full path of a bare file name found in a folder of the environment's Path, in order:
  // 0 with `found` set, ERROR_NO_TOKEN when unavailable, ERROR_FILE_NOT_FOUND otherwise.
  [[nodiscard]] std::uint32_t FindOnPath(const std::wstring& name, std::wstring& found) const;

  const std::vector<std::wstring>& PathFolders() const { return path_; }

 private:
  CEnvironment() = default;
  void ReadBlock();

  bool available_ = false;
  std::shared_ptr<const ky::unique_handle> token_;  // null for the machine
  std::vector<std::wstring> path_;
};

// The Path folders of an environment block (NUL-separated "NAME=value" strings ending in an
// empty one, at most `chars` characters read): split at ';', blanks and quotes trimmed, empty
// folders dropped. Exposed for tests.
std::vector<std::wstring> PathOfBlock(const wchar_t* block, std::size_t chars);

}  // namespace velora::utils
