// The staged user's profile as a user token reaches it: shell32's folder paths and userenv's
// profile folder and environment blocks.
#include "lumera_dev/stand_ins.h"

#include <cwchar>
#include <optional>
#include <string>
#include <vector>

#include "lumera_dev/environment_block.h"
#include "lumera_dev/import_redirect.h"

namespace lumera::dev {
namespace {

constexpr wchar_t kShell[] = L"shell32.dll";
constexpr wchar_t kUserEnv[] = L"userenv.dll";
constexpr DWORD kCreateFolder = 0x8000;   // KF_FLAG_CREATE, CSIDL_FLAG_CREATE
constexpr DWORD kDontVerify = 0x4000;     // KF_FLAG_DONT_VERIFY, CSIDL_FLAG_DONT_VERIFY
constexpr int kCsidlFlags = 0xFF00;       // CSIDL_FLAG_MASK

enum class Folder { kProfile, kRoaming, kLocal, kStartMenu, kPrograms, kStartup };

std::optional<Folder> KnownFolder(REFKNOWNFOLDERID id) {
  if (IsEqualGUID(id, FOLDERID_Profile)) return Folder::kProfile;
  if (IsEqualGUID(id, FOLDERID_RoamingAppData)) return Folder::kRoaming;
  if (IsEqualGUID(id, FOLDERID_LocalAppData)) return Folder::kLocal;
  if (IsEqualGUID(id, FOLDERID_StartMenu)) return Folder::kStartMenu;
  if (IsEqualGUID(id, FOLDERID_Programs)) return Folder::kPrograms;
  if (IsEqualGUID(id, FOLDERID_Startup)) return Folder::kStartup;
  return std::nullopt;
}

std::optional<Folder> CsidlFolder(int csidl) {
  switch (csidl & ~kCsidlFlags) {
    case CSIDL_PROFILE: return Folder::kProfile;
    case CSIDL_APPDATA: return Folder::kRoaming;
    case CSIDL_LOCAL_APPDATA: return Folder::kLocal;
    case CSIDL_STARTMENU: return Folder::kStartMenu;
    case CSIDL_PROGRAMS: return Folder::kPrograms;
    case CSIDL_STARTUP: return Folder::kStartup;
    default: return std::nullopt;
  }
}

std::wstring PathOf(Folder folder, const std::wstring& profile) {
  const std::wstring roaming = profile + L"\\AppData\\Roaming";
  const std::wstring startMenu = roaming + L"\\Microsoft\\Windows\\Start Menu";
  switch (folder) {
    case Folder::kProfile: return profile;
    case Folder::kRoaming: return roaming;
    case Folder::kLocal: return profile + L"\\AppData\\Local";
    case Folder::kStartMenu: return startMenu;
    case Folder::kPrograms: return startMenu + L"\\Programs";
    case Folder::kStartup: return startMenu + L"\\Programs\\Startup";
  }
  return profile;
}

bool IsFolder(const std::wstring& path) {
  const DWORD attributes = ::GetFileAttributesW(path.c_str());
  return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
}

// Creates `path` and every missing folder above it.
bool CreateFolders(const std::wstring& path) {
  for (std::size_t slash = path.find(L'\\', 3); ; slash = path.find(L'\\', slash + 1)) {
    const std::wstring part = path.substr(0, slash);
    if (!::CreateDirectoryW(part.c_str(), nullptr) && ::GetLastError() != ERROR_ALREADY_EXISTS) return false;
    if (slash == std::wstring::npos) return true;
  }
}

// The staged user's folder for a user token, as the shell checks it: it must exist unless the
// caller said not to verify, and is made when asked to. Nothing when the stand-in does not
// answer (no identity staged, not a user token).
std::optional<HRESULT> StagedFolder(Folder folder, HANDLE token, DWORD flags, std::wstring& path) {
  StagedIdentity identity;
  if (!IsUserToken(token) || !ReadStagedIdentity(identity)) return std::nullopt;
  path = PathOf(folder, identity.profile);
  if ((flags & kCreateFolder) != 0 && !IsFolder(path) && !CreateFolders(path)) {
    return HRESULT_FROM_WIN32(::GetLastError());
  }
  if ((flags & kDontVerify) == 0 && !IsFolder(path)) return HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND);
  return S_OK;
}

// The block the staged user's environment calls answer from: the machine's system variables
// for no token, the staged user's logon block for a user token, nothing otherwise.
std::optional<Variables> StagedVariables(HANDLE token, bool inherit) {
  StagedIdentity identity;
  if (!ReadStagedIdentity(identity)) return std::nullopt;
  const bool user = IsUserToken(token);
  if (token != nullptr && !user) return std::nullopt;
  Variables variables;
  if (inherit) {
    LPWCH own = ::GetEnvironmentStringsW();
    variables = FromEnvironmentBlock(own);
    if (own != nullptr) ::FreeEnvironmentStringsW(own);
  }
  for (auto& [name, value] : MachineVariables()) variables[name] = std::move(value);
  return user ? UserVariables(identity, std::move(variables)) : variables;
}

}  // namespace

HRESULT WINAPI StagedSHGetKnownFolderPath(REFKNOWNFOLDERID id, DWORD flags, HANDLE token, PWSTR* path) {
  const auto original = KY_DEV_ORIGINAL(kShell, SHGetKnownFolderPath);
  std::wstring folder;
  const std::optional<Folder> kind = KnownFolder(id);
  const std::optional<HRESULT> staged = kind ? StagedFolder(*kind, token, flags, folder) : std::nullopt;
  if (!staged) return original != nullptr ? original(id, flags, token, path) : HRESULT_FROM_WIN32(ERROR_PROC_NOT_FOUND);
  if (path == nullptr) return E_INVALIDARG;
  *path = nullptr;
  if (FAILED(*staged)) return *staged;
  // The caller frees the path with CoTaskMemFree, whoever answered. Bound by name so that a
  // library linking the stand-ins does not load ole32.dll with itself.
  const auto taskAlloc = KY_DEV_ORIGINAL(L"ole32.dll", CoTaskMemAlloc);
  if (taskAlloc == nullptr) return E_OUTOFMEMORY;
  auto* copy = static_cast<PWSTR>(taskAlloc((folder.size() + 1) * sizeof(wchar_t)));
  if (copy == nullptr) return E_OUTOFMEMORY;
  std::wmemcpy(copy, folder.c_str(), folder.size() + 1);
  *path = copy;
  return S_OK;
}

HRESULT WINAPI StagedSHGetFolderPathW(HWND window, int csidl, HANDLE token, DWORD flags, LPWSTR path) {
  const auto original = KY_DEV_ORIGINAL(kShell, SHGetFolderPathW);
  std::wstring folder;
  const std::optional<Folder> kind = CsidlFolder(csidl);
  const DWORD folderFlags = static_cast<DWORD>(csidl & kCsidlFlags);
  const std::optional<HRESULT> staged = kind ? StagedFolder(*kind, token, folderFlags, folder) : std::nullopt;
  if (!staged) {
    return original != nullptr ? original(window, csidl, token, flags, path) : HRESULT_FROM_WIN32(ERROR_PROC_NOT_FOUND);
  }
  if (path == nullptr) return E_INVALIDARG;
  path[0] = L'\0';
  if (FAILED(*staged)) return *staged;
  if (folder.size() >= MAX_PATH) return HRESULT_FROM_WIN32(ERROR_FILENAME_EXCED_RANGE);
  std::wmemcpy(path, folder.c_str(), folder.size() + 1);
  return S_OK;
}

BOOL WINAPI StagedGetUserProfileDirectoryW(HANDLE token, LPWSTR folder, LPDWORD chars) {
  const auto original = KY_DEV_ORIGINAL(kUserEnv, GetUserProfileDirectoryW);
  StagedIdentity identity;
  if (!IsUserToken(token) || !ReadStagedIdentity(identity)) return CallOriginal(original, token, folder, chars);
  if (chars == nullptr) {
    ::SetLastError(ERROR_INVALID_PARAMETER);
    return FALSE;
  }
  const DWORD need = static_cast<DWORD>(identity.profile.size() + 1);
  if (folder == nullptr || *chars < need) {
    *chars = need;
    ::SetLastError(ERROR_INSUFFICIENT_BUFFER);
    return FALSE;
  }
  std::wmemcpy(folder, identity.profile.c_str(), need);
  *chars = need;
  return TRUE;
}

BOOL WINAPI StagedCreateEnvironmentBlock(LPVOID* environment, HANDLE token, BOOL inherit) {
  const auto original = KY_DEV_ORIGINAL(kUserEnv, CreateEnvironmentBlock);
  std::optional<Variables> variables = StagedVariables(token, inherit != FALSE);
  if (!variables) return CallOriginal(original, environment, token, inherit);
  if (environment == nullptr) {
    ::SetLastError(ERROR_INVALID_PARAMETER);
    return FALSE;
  }
  const std::vector<wchar_t> block = ToEnvironmentBlock(*variables);
  void* copy = AllocateStandInBuffer(block.size() * sizeof(wchar_t));
  if (copy == nullptr) {
    ::SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    return FALSE;
  }
  std::wmemcpy(static_cast<wchar_t*>(copy), block.data(), block.size());
  *environment = copy;
  return TRUE;
}

BOOL WINAPI StagedDestroyEnvironmentBlock(LPVOID environment) {
  const auto original = KY_DEV_ORIGINAL(kUserEnv, DestroyEnvironmentBlock);
  if (FreeStandInBuffer(environment)) return TRUE;
  return CallOriginal(original, environment);
}

BOOL WINAPI StagedExpandEnvironmentStringsForUserW(HANDLE token, LPCWSTR source, LPWSTR destination, DWORD chars) {
  const auto original = KY_DEV_ORIGINAL(kUserEnv, ExpandEnvironmentStringsForUserW);
  const std::optional<Variables> variables = StagedVariables(token, false);
  if (!variables) return CallOriginal(original, token, source, destination, chars);
  if (source == nullptr || destination == nullptr) {
    ::SetLastError(ERROR_INVALID_PARAMETER);
    return FALSE;
  }
  const std::wstring expanded = ExpandVariables(source, *variables);
  if (expanded.size() + 1 > chars) {
    ::SetLastError(ERROR_INSUFFICIENT_BUFFER);
    return FALSE;
  }
  std::wmemcpy(destination, expanded.c_str(), expanded.size() + 1);
  return TRUE;
}

}  // namespace lumera::dev
