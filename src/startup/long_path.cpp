#include "startup/long_path.h"

#include <cwchar>
#include <map>
#include <vector>

#include "common/module_library.h"
#include "common/unique_handle.h"

namespace startup {
namespace {

constexpr DWORD kPathChars = 32767;

SRWLOCK g_lock = SRWLOCK_INIT;
std::map<std::wstring, std::wstring>& Folders() {
  static std::map<std::wstring, std::wstring> folders;
  return folders;
}

std::uint32_t Convert(const std::wstring& path, std::wstring& out) {
  std::vector<wchar_t> buffer(kPathChars, L'\0');
  ::SetLastError(0);
  const DWORD chars = ::GetLongPathNameW(path.c_str(), buffer.data(), kPathChars);
  if (chars == 0) return ky::LastErrorOr(ERROR_FILE_NOT_FOUND);
  if (chars >= kPathChars) return ERROR_FILENAME_EXCED_RANGE;
  out.assign(buffer.data(), chars);
  return 0;
}

bool LongFolder(const std::wstring& folder, std::wstring& out) {
  ::AcquireSRWLockShared(&g_lock);
  auto it = Folders().find(folder);
  const bool known = it != Folders().end();
  if (known) out = it->second;
  ::ReleaseSRWLockShared(&g_lock);
  if (known) return true;
  if (Convert(folder, out) != 0) return false;
  ::AcquireSRWLockExclusive(&g_lock);
  if (Folders().size() >= kMaxRememberedFolders) Folders().clear();
  Folders()[folder] = out;
  ::ReleaseSRWLockExclusive(&g_lock);
  return true;
}

}  // namespace

std::uint32_t LongPathName(const std::wstring& path, std::wstring& out) {
  const std::size_t slash = path.find_last_of(L'\\');
  // "C:\x" and "\\server\share" keep to the plain call, as do names a search would widen.
  const bool split = slash != std::wstring::npos && slash > 2 && path.find_first_of(L"*?") == std::wstring::npos;
  if (split && slash + 1 == path.size()) {
    std::wstring folder;
    if (LongFolder(path.substr(0, slash), folder)) {
      out = folder + L"\\";
      return 0;
    }
  } else if (split) {
    const std::wstring name = path.substr(slash + 1);
    std::wstring folder;
    WIN32_FIND_DATAW data{};
    if (name != L"." && name != L".." && LongFolder(path.substr(0, slash), folder)) {
      ky::unique_find found(::FindFirstFileW(path.c_str(), &data));
      if (found.valid() && folder.size() + 1 + std::wcslen(data.cFileName) < kPathChars) {
        out = folder + L"\\" + data.cFileName;
        return 0;
      }
    }
  }
  return Convert(path, out);
}

void ForgetLongFolders() {
  ::AcquireSRWLockExclusive(&g_lock);
  Folders().clear();
  ::ReleaseSRWLockExclusive(&g_lock);
}

}  // namespace startup
