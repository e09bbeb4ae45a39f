#include "users/ky_users.h"

#include <shlwapi.h>

#include <vector>

#include "common/log.h"

extern "C" IMAGE_DOS_HEADER __ImageBase;

namespace velora::utils {
namespace {

template <class Fn>
Fn Bind(HMODULE module, const char* name) {
  return reinterpret_cast<Fn>(reinterpret_cast<void*>(::GetProcAddress(module, name)));
}

std::wstring LibraryBesideThisBinary() {
  std::vector<wchar_t> path(MAX_PATH + 1, L'\0');
  ::GetModuleFileNameW(reinterpret_cast<HMODULE>(&__ImageBase), path.data(), MAX_PATH);
  ::PathRemoveFileSpecW(path.data());
  ::PathAppendW(path.data(), kyusers::kLibraryName);
  return path.data();
}

}  // namespace

CKYUsers& CKYUsers::Instance() {
  static CKYUsers instance;
  return instance;
}

bool CKYUsers::BoundLocked() const {
  return module_ && basic_ != nullptr && advanced_ != nullptr && impersonate_ != nullptr && revert_ != nullptr;
}

bool CKYUsers::ReloadDll() {
  KY_TRACE(L"CKYUsers::ReloadDll");
  ExclusiveLock hold(lock_);
  if (BoundLocked()) return true;
  const std::wstring path = LibraryBesideThisBinary();
  ::SetLastError(0);
  module_.reset(::LoadLibraryExW(path.c_str(), nullptr, LOAD_WITH_ALTERED_SEARCH_PATH));
  if (!module_) module_.reset(::LoadLibraryW(kyusers::kLibraryName));
  if (!module_) {
    KY_LOG(logging::kLevelError, L"LoadLibrary %s failed 0x%x", path.c_str(), ::GetLastError());
    return false;
  }
  basic_ = Bind<kyusers::SrvGetCurrentUserInfoBasicFn>(module_.get(), kyusers::kGetCurrentUserInfoBasic);
  advanced_ = Bind<kyusers::SrvGetCurrentUserInfoAdvancedFn>(module_.get(), kyusers::kGetCurrentUserInfoAdvanced);
  impersonate_ = Bind<kyusers::SrvImpersonateCurrentUserFn>(module_.get(), kyusers::kImpersonateCurrentUser);
  revert_ = Bind<kyusers::SrvRevertToSelfFn>(module_.get(), kyusers::kRevertToSelf);
  if (!BoundLocked()) {
    KY_LOG(logging::kLevelError, L"GetProcAddress in %s failed 0x%x", path.c_str(), ERROR_PROC_NOT_FOUND);
    basic_ = nullptr;
    advanced_ = nullptr;
    impersonate_ = nullptr;
    revert_ = nullptr;
    module_.reset();
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
  module_.reset();
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
