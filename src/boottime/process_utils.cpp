#include "boottime/process_utils.h"

#include <psapi.h>

#include <algorithm>

#include "common/log.h"

namespace boottime::utils {
namespace {
constexpr DWORD kPidBufferBytes = 4096;
constexpr DWORD kNameChars = MAX_PATH;
}  // namespace

std::vector<std::uint32_t> GetAllProcessesPids() {
  KY_TRACE(L"boottime::utils::GetAllProcessesPids");
  std::vector<DWORD> pids(kPidBufferBytes / sizeof(DWORD));
  DWORD returned = 0;
  ::SetLastError(0);
  if (!::K32EnumProcesses(pids.data(), kPidBufferBytes, &returned)) {
    KY_LOG(logging::kLevelError, L"EnumProcesses failed error code : %d", static_cast<int>(::GetLastError()));
    return {};
  }
  std::vector<std::uint32_t> result(pids.begin(), pids.begin() + std::min<DWORD>(returned / sizeof(DWORD), pids.size()));
  std::sort(result.begin(), result.end());
  return result;
}

std::wstring GetProcessName(HANDLE process) {
  KY_TRACE(L"boottime::utils::GetProcessName");
  wchar_t name[kNameChars] = {};
  ::SetLastError(0);
  const DWORD length = ::K32GetModuleFileNameExW(process, nullptr, name, kNameChars);
  if (length == 0) {
    // The message names another call than the one made; kept as it stands.
    KY_LOG(logging::kLevelError, L"QueryFullProcessImageName failed with error code : %lu", ::GetLastError());
    return {};
  }
  return std::wstring(name, std::min<DWORD>(length, kNameChars));
}

}  // namespace boottime::utils
