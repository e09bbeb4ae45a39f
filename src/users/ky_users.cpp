#include "users/ky_users.h"

#include "common/log.h"

namespace velora::utils {

CKYUsers& CKYUsers::Instance() {
  static CKYUsers instance;
  return instance;
}

bool CKYUsers::BoundLocked() const {
  return module_.Loaded() && basic_ != nullptr && advanced_ != nullptr && impersonate_ != nullptr && revert_ != nullptr;
}

bool CKYUsers::ReloadDll() {
  KY_TRACE(L"CKYUsers::ReloadDll");
  ExclusiveLock hold(lock_);
  if (BoundLocked()) return true;
  const std::wstring path = ky::SiblingPath(kyusers::kLibraryName);
  if (const std::uint32_t loaded = module_.Load(path); loaded != 0) {
    KY_LOG(logging::kLevelError, L"LoadLibrary %s failed 0x%x", path.c_str(), loaded);
    return false;
  }
  const std::uint32_t bound =
      module_.Bind({ky::BindAs(kyusers::kGetCurrentUserInfoBasic, basic_),
                    ky::BindAs(kyusers::kGetCurrentUserInfoAdvanced, advanced_),
                    ky::BindAs(kyusers::kImpersonateCurrentUser, impersonate_), ky::BindAs(kyusers::kRevertToSelf, revert_)});
  if (bound != 0) {
    KY_LOG(logging::kLevelError, L"GetProcAddress in %s failed 0x%x", path.c_str(), ERROR_PROC_NOT_FOUND);
    module_.Free();
    return false;
  }
  return true;
}

void CKYUsers::UnloadDll() {
  KY_TRACE(L"CKYUsers::UnloadDll");
  ExclusiveLock hold(lock_);
  basic_ = nullptr;
  advanced_ = nullptr;
  impersonate_ = nullptr;
  revert_ = nullptr;
  module_.Free();
}

bool CKYUsers::IsLoaded() {
  SharedLock hold(lock_);
  return BoundLocked();
}

std::uint32_t CKYUsers::GetCurrentUserInfoBasic(std::wstring& userName, std::wstring& domain) {
  userName.clear();
  domain.clear();
  SharedLock hold(lock_);
  if (!BoundLocked()) return kErrorUsersNotLoaded;
  kyusers::UserInfoBasic info{};
  info.size = sizeof(info);
  const std::uint32_t result = basic_(&info);
  if (result != 0) return result;
  info.userName[kyusers::kUserNameChars - 1] = L'\0';
  info.domain[kyusers::kDomainChars - 1] = L'\0';
  userName = info.userName;
  domain = info.domain;
  return 0;
}

std::uint32_t CKYUsers::GetCurrentUserInfoAdvanced(kyusers::UserInfoAdvanced& info) {
  info = kyusers::UserInfoAdvanced{};
  info.size = sizeof(info);
  SharedLock hold(lock_);
  if (!BoundLocked()) return kErrorUsersNotLoaded;
  const std::uint32_t result = advanced_(&info);
  // The library is another binary: its strings are terminated here whatever it wrote.
  info.userName[kyusers::kUserNameChars - 1] = L'\0';
  info.domain[kyusers::kDomainChars - 1] = L'\0';
  info.appDataFolder[kyusers::kFolderChars - 1] = L'\0';
  if (result != 0) {
    info = kyusers::UserInfoAdvanced{};
    info.size = sizeof(info);
  }
  return result;
}

std::uint32_t CKYUsers::ImpersonateCurrentUser() {
  SharedLock hold(lock_);
  return BoundLocked() ? impersonate_() : kErrorUsersNotLoaded;
}

std::uint32_t CKYUsers::RevertToSelf() {
  SharedLock hold(lock_);
  return BoundLocked() ? revert_() : kErrorUsersNotLoaded;
}

CUserImpersonation::CUserImpersonation(CKYUsers& users) : users_(users), hold_(users.Lock()) {
  active_ = users_.ImpersonateCurrentUser() == 0;
}

CUserImpersonation::~CUserImpersonation() {
  if (active_) (void)users_.RevertToSelf();
}

}  // namespace velora::utils
