#include "server_account.h"

#include <sddl.h>

#include <vector>

#include "common/log.h"
#include "common/unique_handle.h"

namespace pipelink {
namespace {

constexpr wchar_t kFunction[] = L"pipelink::CheckServerAccount";

std::uint32_t Failed(const wchar_t* call, const std::wstring& path) {
  const DWORD error = ::GetLastError() != 0 ? ::GetLastError() : ERROR_GEN_FAILURE;
  logging::Write(logging::kLevelError, kFunction, L"%s for the server of %s failed 0x%x", call, path.c_str(), error);
  return error;
}

std::wstring SidText(PSID sid) {
  ky::unique_local text;
  wchar_t* raw = nullptr;
  if (!::ConvertSidToStringSidW(sid, &raw)) return L"?";
  text.reset(raw);
  return raw;
}

}  // namespace

std::uint32_t CheckServerAccount(HANDLE pipe, const std::wstring& path) {
  ULONG pid = 0;
  ::SetLastError(0);
  if (!::GetNamedPipeServerProcessId(pipe, &pid)) return Failed(L"GetNamedPipeServerProcessId", path);
  ky::unique_handle process(::OpenProcess(PROCESS_QUERY_LIMITED_INFORMATION, FALSE, pid));
  if (!process) return Failed(L"OpenProcess", path);
  ky::unique_handle token;
  ::SetLastError(0);
  if (!::OpenProcessToken(process.get(), TOKEN_QUERY, token.put())) return Failed(L"OpenProcessToken", path);
  DWORD bytes = 0;
  ::SetLastError(0);
  ::GetTokenInformation(token.get(), TokenUser, nullptr, 0, &bytes);
  if (bytes == 0) return Failed(L"GetTokenInformation", path);
  std::vector<std::uint8_t> buffer(bytes);
  ::SetLastError(0);
  if (!::GetTokenInformation(token.get(), TokenUser, buffer.data(), bytes, &bytes)) {
    return Failed(L"GetTokenInformation", path);
  }
  const PSID user = reinterpret_cast<const TOKEN_USER*>(buffer.data())->User.Sid;
  if (::IsWellKnownSid(user, WinLocalSystemSid)) return 0;
  logging::Write(logging::kLevelError, kFunction,
                 L"%s is served by process %lu running as %s, not LocalSystem: connection refused", path.c_str(), pid,
                 SidText(user).c_str());
  return ERROR_ACCESS_DENIED;
}

}  // namespace pipelink
