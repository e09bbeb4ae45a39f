#include "common/service_folder.h"

#include <aclapi.h>
#include <sddl.h>

#include "common/module_library.h"

namespace ky {
namespace {

constexpr DWORD kReadExecute = FILE_GENERIC_READ | FILE_GENERIC_EXECUTE;
constexpr SECURITY_INFORMATION kOwnerAndList = OWNER_SECURITY_INFORMATION | DACL_SECURITY_INFORMATION;

bool IsSid(PSID sid, WELL_KNOWN_SID_TYPE type) {
  BYTE buffer[SECURITY_MAX_SID_SIZE];
  DWORD size = sizeof buffer;
  return ::CreateWellKnownSid(type, nullptr, buffer, &size) && ::EqualSid(sid, buffer);
}

bool IsServiceSid(PSID sid) { return IsSid(sid, WinLocalSystemSid) || IsSid(sid, WinBuiltinAdministratorsSid); }

std::uint32_t MakeDescriptor(unique_local& descriptor) {
  PSECURITY_DESCRIPTOR raw = nullptr;
  ::SetLastError(0);
  if (!::ConvertStringSecurityDescriptorToSecurityDescriptorW(kServiceFolderSddl, SDDL_REVISION_1, &raw, nullptr)) {
    return LastErrorOr(ERROR_INVALID_DATA);
  }
  descriptor.reset(raw);
  return 0;
}

bool IsSecure(PSECURITY_DESCRIPTOR descriptor, PSID owner, PACL list) {
  SECURITY_DESCRIPTOR_CONTROL control = 0;
  DWORD revision = 0;
  if (owner == nullptr || !IsServiceSid(owner) || list == nullptr) return false;
  if (!::GetSecurityDescriptorControl(descriptor, &control, &revision) || (control & SE_DACL_PROTECTED) == 0) {
    return false;
  }
  for (DWORD i = 0; i < list->AceCount; ++i) {
    void* ace = nullptr;
    if (!::GetAce(list, i, &ace)) return false;
    const auto* header = static_cast<const ACE_HEADER*>(ace);
    if (header->AceType == ACCESS_DENIED_ACE_TYPE) continue;
    if (header->AceType != ACCESS_ALLOWED_ACE_TYPE) return false;
    const auto* allowed = static_cast<ACCESS_ALLOWED_ACE*>(ace);
    PSID sid = const_cast<DWORD*>(&allowed->SidStart);
    if (!IsServiceSid(sid) && (allowed->Mask & ~kReadExecute) != 0) return false;
  }
  return true;
}

std::uint32_t Repair(const std::wstring& folder) {
  unique_local descriptor;
  if (const std::uint32_t made = MakeDescriptor(descriptor); made != 0) return made;
  PSID owner = nullptr;
  BOOL defaulted = FALSE;
  PACL list = nullptr;
  BOOL present = FALSE;
  if (!::GetSecurityDescriptorOwner(descriptor.get(), &owner, &defaulted) ||
      !::GetSecurityDescriptorDacl(descriptor.get(), &present, &list, &defaulted)) {
    return LastErrorOr(ERROR_INVALID_DATA);
  }
  return ::SetNamedSecurityInfoW(const_cast<wchar_t*>(folder.c_str()), SE_FILE_OBJECT,
                                 kOwnerAndList | PROTECTED_DACL_SECURITY_INFORMATION, owner, nullptr, list, nullptr);
}

}  // namespace

bool IsServiceDescriptor(PSECURITY_DESCRIPTOR descriptor) {
  PSID owner = nullptr;
  PACL list = nullptr;
  BOOL defaulted = FALSE;
  BOOL present = FALSE;
  return descriptor != nullptr && ::GetSecurityDescriptorOwner(descriptor, &owner, &defaulted) &&
         ::GetSecurityDescriptorDacl(descriptor, &present, &list, &defaulted) && present &&
         IsSecure(descriptor, owner, list);
}

ScopedProcessIdentity::ScopedProcessIdentity() {
  if (::OpenThreadToken(::GetCurrentThread(), TOKEN_IMPERSONATE, TRUE, token_.put()) && !::RevertToSelf()) {
    token_.reset();
  }
}

ScopedProcessIdentity::~ScopedProcessIdentity() {
  if (token_.valid()) (void)::SetThreadToken(nullptr, token_.get());
}

std::uint32_t CheckServiceFolder(const std::wstring& folder, bool& secure, std::wstring& sddl) {
  PSID owner = nullptr;
  PACL list = nullptr;
  PSECURITY_DESCRIPTOR raw = nullptr;
  const DWORD read = ::GetNamedSecurityInfoW(folder.c_str(), SE_FILE_OBJECT, kOwnerAndList, &owner, nullptr, &list,
                                             nullptr, &raw);
  if (read != ERROR_SUCCESS) return read;
  unique_local descriptor(raw);
  wchar_t* text = nullptr;
  if (!::ConvertSecurityDescriptorToStringSecurityDescriptorW(descriptor.get(), SDDL_REVISION_1, kOwnerAndList, &text,
                                                              nullptr)) {
    return LastErrorOr(ERROR_INVALID_DATA);
  }
  unique_local textOwner(text);
  secure = IsSecure(descriptor.get(), owner, list);
  sddl = text;
  return 0;
}

std::uint32_t EnsureServiceFolder(const std::wstring& folder, FolderResult& result) {
  const ScopedProcessIdentity self;
  unique_local descriptor;
  if (const std::uint32_t made = MakeDescriptor(descriptor); made != 0) return made;
  SECURITY_ATTRIBUTES attributes{sizeof attributes, descriptor.get(), FALSE};
  ::SetLastError(0);
  if (::CreateDirectoryW(folder.c_str(), &attributes)) {
    result = FolderResult{FolderState::kCreated, {}};
    return 0;
  }
  const std::uint32_t error = LastErrorOr(ERROR_CANNOT_MAKE);
  if (error != ERROR_ALREADY_EXISTS) return error;
  // A link or junction in the folder's place is refused, not repaired: setting its access list
  // would change the folder it points to, wherever a user made it point.
  const DWORD found = ::GetFileAttributesW(folder.c_str());
  if (found == INVALID_FILE_ATTRIBUTES) return LastErrorOr(ERROR_PATH_NOT_FOUND);
  if ((found & FILE_ATTRIBUTE_DIRECTORY) == 0 || (found & FILE_ATTRIBUTE_REPARSE_POINT) != 0) return ERROR_DIRECTORY;
  bool secure = false;
  std::wstring sddl;
  if (const std::uint32_t checked = CheckServiceFolder(folder, secure, sddl); checked != 0) return checked;
  if (secure) {
    result = FolderResult{FolderState::kKept, {}};
    return 0;
  }
  if (const std::uint32_t repaired = Repair(folder); repaired != 0) return repaired;
  result = FolderResult{FolderState::kRepaired, std::move(sddl)};
  return 0;
}

}  // namespace ky
