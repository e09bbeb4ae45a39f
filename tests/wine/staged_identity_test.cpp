// The staged second identity under Wine, as a service reaches it: this program installs the
// stand-ins on itself (as startupctl.exe does) and stages its own user in a scratch key
// named by LUMERA_DEV_KEY; kyusers.dll installs them on itself when loaded.
#include <gtest/gtest.h>

#include <windows.h>
#include <lmcons.h>
#include <sddl.h>
#include <shlobj.h>
#include <userenv.h>
#include <wtsapi32.h>

#include <iterator>
#include <string>
#include <vector>

#include "common/module_library.h"
#include "common/unique_handle.h"
#include "lumera/kyusers.h"
#include "lumera_dev/console_session.h"
#include "lumera_dev/staged_identity.h"
#include "support/scoped_environment.h"
#include "support/staged_user.h"

namespace {

constexpr wchar_t kUserPath[] = L"%USERPROFILE%\\Tools";

std::wstring Computer() {
  wchar_t name[MAX_COMPUTERNAME_LENGTH + 1] = {};
  DWORD chars = static_cast<DWORD>(std::size(name));
  return ::GetComputerNameW(name, &chars) ? std::wstring(name, chars) : std::wstring();
}

std::wstring KnownFolder(REFKNOWNFOLDERID id, HANDLE token, DWORD flags = 0, HRESULT* result = nullptr) {
  PWSTR path = reinterpret_cast<PWSTR>(1);  // must come back null on failure
  const HRESULT hr = ::SHGetKnownFolderPath(id, flags, token, &path);
  if (result != nullptr) *result = hr;
  if (FAILED(hr)) return path == nullptr ? L"<failed, null>" : L"<failed, not null>";
  std::wstring text = path;
  ::CoTaskMemFree(path);
  return text;
}

std::wstring ExpandForUser(HANDLE token, const wchar_t* text) {
  wchar_t out[2048] = {};
  return ::ExpandEnvironmentStringsForUserW(token, text, out, static_cast<DWORD>(std::size(out))) ? out : L"<failed>";
}

// The strings of an environment block in their order, checking its final double NUL.
std::vector<std::wstring> BlockEntries(HANDLE token) {
  void* block = nullptr;
  std::vector<std::wstring> entries;
  if (!::CreateEnvironmentBlock(&block, token, FALSE)) return entries;
  for (auto* entry = static_cast<const wchar_t*>(block); *entry != L'\0'; entry += entries.back().size() + 1) {
    entries.emplace_back(entry);
  }
  EXPECT_TRUE(::DestroyEnvironmentBlock(block));
  return entries;
}

std::wstring Lookup(const std::vector<std::wstring>& entries, const std::wstring& name) {
  for (const std::wstring& entry : entries) {
    if (entry.size() > name.size() && entry[name.size()] == L'=' &&
        ::CompareStringOrdinal(entry.c_str(), static_cast<int>(name.size()), name.c_str(), -1, TRUE) == CSTR_EQUAL) {
      return entry.substr(name.size() + 1);
    }
  }
  return L"<unset>";
}

std::wstring ProcessSid() {
  ky::unique_handle token;
  BYTE buffer[256] = {};
  DWORD bytes = 0;
  LPWSTR text = nullptr;
  if (!::OpenProcessToken(::GetCurrentProcess(), TOKEN_QUERY, token.put()) ||
      !::GetTokenInformation(token.get(), TokenUser, buffer, sizeof buffer, &bytes) ||
      !::ConvertSidToStringSidW(reinterpret_cast<TOKEN_USER*>(buffer)->User.Sid, &text)) {
    return L"<none>";
  }
  const ky::unique_local owner(text);
  return text;
}

class StagedIdentityTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    installed_ = lumera::dev::InstallStagedIdentity(::GetModuleHandleW(nullptr));
  }

  void SetUp() override {
    ASSERT_GE(installed_, 11) << "every stand-in redirected in this program";
    user_.SetUserPath(kUserPath);
  }

  // The staged user's token, as a service gets it for the console session.
  ky::unique_handle UserToken() {
    ky::unique_handle token;
    EXPECT_TRUE(::WTSQueryUserToken(::WTSGetActiveConsoleSessionId(), token.put())) << ::GetLastError();
    return token;
  }

  static inline int installed_ = 0;
  testsupport::StagedUser user_;
};

TEST_F(StagedIdentityTest, KyUsersSeesNobodyWhileLoggedOffAndTheStagedUserOnceOn) {
  ky::ModuleLibrary users;
  ASSERT_EQ(users.Load(testsupport::ExeFolder() + L"..\\kyusers.dll"), 0u);
  kyusers::SrvGetCurrentUserInfoAdvancedFn advanced = nullptr;
  kyusers::SrvImpersonateCurrentUserFn impersonate = nullptr;
  kyusers::SrvRevertToSelfFn revert = nullptr;
  ASSERT_EQ(users.Bind({ky::BindAs(kyusers::kGetCurrentUserInfoAdvanced, advanced),
                        ky::BindAs(kyusers::kImpersonateCurrentUser, impersonate),
                        ky::BindAs(kyusers::kRevertToSelf, revert)}),
            0u);
  kyusers::UserInfoAdvanced info{};
  info.size = sizeof info;

  user_.SetLoggedOn(false);
  EXPECT_EQ(advanced(&info), static_cast<std::uint32_t>(ERROR_NO_TOKEN)) << "never the process's own account";
  EXPECT_EQ(info.userName[0], L'\0');
  EXPECT_EQ(impersonate(), static_cast<std::uint32_t>(ERROR_NO_TOKEN));
  HANDLE token = nullptr;
  EXPECT_FALSE(::WTSQueryUserToken(::WTSGetActiveConsoleSessionId(), &token));
  EXPECT_EQ(::GetLastError(), static_cast<DWORD>(ERROR_NO_TOKEN));
  LPWSTR name = nullptr;
  DWORD bytes = 0;
  ASSERT_TRUE(::WTSQuerySessionInformationW(WTS_CURRENT_SERVER_HANDLE, ::WTSGetActiveConsoleSessionId(), WTSUserName,
                                            &name, &bytes));
  EXPECT_EQ(std::wstring(name), L"") << "an empty console, as Windows reports it";
  ::WTSFreeMemory(name);

  user_.SetLoggedOn(true);
  ASSERT_EQ(advanced(&info), 0u);
  EXPECT_EQ(std::wstring(info.userName), user_.Name());
  EXPECT_EQ(std::wstring(info.domain), Computer());
  EXPECT_EQ(std::wstring(info.appDataFolder), user_.Roaming()) << "through the user's token";
  ASSERT_EQ(impersonate(), 0u);
  ky::unique_handle thread;
  ASSERT_TRUE(::OpenThreadToken(::GetCurrentThread(), TOKEN_QUERY | TOKEN_IMPERSONATE | TOKEN_DUPLICATE, TRUE,
                                thread.put()))
      << "the thread impersonates";
  EXPECT_EQ(KnownFolder(FOLDERID_Startup, thread.get()), user_.Startup());
  EXPECT_EQ(revert(), 0u);

  // With no identity staged the session is Wine's own again.
  const std::wstring devKey = testsupport::EnvironmentValue(lumera::dev::kKeyOverride);
  ASSERT_EQ(::RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, devKey.c_str(), lumera::dev::kStagedUserValue), ERROR_SUCCESS);
  wchar_t own[UNLEN + 1] = {};
  DWORD ownChars = static_cast<DWORD>(std::size(own));
  ASSERT_TRUE(::GetUserNameW(own, &ownChars));
  ASSERT_EQ(advanced(&info), 0u);
  EXPECT_EQ(std::wstring(info.userName), own);
  user_.SetLoggedOn(false);
  EXPECT_EQ(advanced(&info), static_cast<std::uint32_t>(ERROR_NO_TOKEN)) << "logged off, staged or not";
}

TEST_F(StagedIdentityTest, AccountLookupsMapTheStagedUserAndLeaveTheWineAccountItsOwn) {
  std::wstring upper = user_.Name();
  ::CharUpperW(upper.data());
  for (const std::wstring& account : {user_.Name(), Computer() + L"\\" + upper}) {
    DWORD sidBytes = 0, domainChars = 0;
    SID_NAME_USE use = SidTypeUnknown;
    ASSERT_FALSE(::LookupAccountNameW(nullptr, account.c_str(), nullptr, &sidBytes, nullptr, &domainChars, &use));
    EXPECT_EQ(::GetLastError(), static_cast<DWORD>(ERROR_INSUFFICIENT_BUFFER));
    EXPECT_EQ(domainChars, Computer().size() + 1) << "with the terminating NUL";
    std::vector<BYTE> sid(sidBytes);
    std::vector<wchar_t> domain(domainChars);
    ASSERT_TRUE(::LookupAccountNameW(nullptr, account.c_str(), sid.data(), &sidBytes, domain.data(), &domainChars, &use))
        << account;
    LPWSTR text = nullptr;
    ASSERT_TRUE(::ConvertSidToStringSidW(sid.data(), &text));
    const ky::unique_local owner(text);
    EXPECT_EQ(std::wstring(text), user_.Sid()) << account;
    EXPECT_EQ(std::wstring(domain.data()), Computer());
    EXPECT_EQ(domainChars, Computer().size()) << "without the NUL on success";
    EXPECT_EQ(use, SidTypeUser);

    wchar_t name[64] = {}, nameDomain[64] = {};
    DWORD nameChars = 3, nameDomainChars = static_cast<DWORD>(std::size(nameDomain));
    EXPECT_FALSE(::LookupAccountSidW(nullptr, sid.data(), name, &nameChars, nameDomain, &nameDomainChars, &use));
    EXPECT_EQ(nameChars, user_.Name().size() + 1) << "the size the name needs";
    nameChars = static_cast<DWORD>(std::size(name));
    ASSERT_TRUE(::LookupAccountSidW(nullptr, sid.data(), name, &nameChars, nameDomain, &nameDomainChars, &use));
    EXPECT_EQ(std::wstring(name), user_.Name());
  }

  wchar_t own[UNLEN + 1] = {};
  DWORD ownChars = static_cast<DWORD>(std::size(own));
  ASSERT_TRUE(::GetUserNameW(own, &ownChars));
  BYTE sid[SECURITY_MAX_SID_SIZE] = {};
  wchar_t domain[256] = {};
  DWORD sidBytes = sizeof sid, domainChars = static_cast<DWORD>(std::size(domain));
  SID_NAME_USE use = SidTypeUnknown;
  ASSERT_TRUE(::LookupAccountNameW(nullptr, own, sid, &sidBytes, domain, &domainChars, &use));
  LPWSTR text = nullptr;
  ASSERT_TRUE(::ConvertSidToStringSidW(sid, &text));
  const ky::unique_local owner(text);
  EXPECT_EQ(std::wstring(text), ProcessSid()) << "the Wine account keeps its own SID";
  EXPECT_NE(std::wstring(text), user_.Sid());
}

TEST_F(StagedIdentityTest, AUserTokenReachesTheStagedProfileWhileTheProcessKeepsItsOwn) {
  const ky::unique_handle token = UserToken();
  ASSERT_TRUE(token);
  EXPECT_EQ(KnownFolder(FOLDERID_RoamingAppData, token.get()), user_.Roaming());
  EXPECT_EQ(KnownFolder(FOLDERID_LocalAppData, token.get()), user_.Local());
  EXPECT_EQ(KnownFolder(FOLDERID_Startup, token.get()), user_.Startup());
  wchar_t folder[MAX_PATH] = {};
  ASSERT_EQ(::SHGetFolderPathW(nullptr, CSIDL_STARTUP, token.get(), SHGFP_TYPE_CURRENT, folder), S_OK);
  EXPECT_EQ(std::wstring(folder), user_.Startup());
  DWORD chars = 0;
  EXPECT_FALSE(::GetUserProfileDirectoryW(token.get(), nullptr, &chars));
  EXPECT_EQ(::GetLastError(), static_cast<DWORD>(ERROR_INSUFFICIENT_BUFFER));
  EXPECT_EQ(chars, user_.Profile().size() + 1);

  // The shell checks that a folder exists unless told to make it.
  ASSERT_TRUE(::RemoveDirectoryW(user_.Startup().c_str()));
  HRESULT result = S_OK;
  EXPECT_EQ(KnownFolder(FOLDERID_Startup, token.get(), 0, &result), L"<failed, null>");
  EXPECT_EQ(result, HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND));
  EXPECT_EQ(KnownFolder(FOLDERID_Startup, token.get(), KF_FLAG_CREATE), user_.Startup());
  EXPECT_NE(::GetFileAttributesW(user_.Startup().c_str()), INVALID_FILE_ATTRIBUTES);

  // The process's own token and no token are the host account's folders.
  for (const GUID& id : {FOLDERID_RoamingAppData, FOLDERID_LocalAppData, FOLDERID_Startup}) {
    const std::wstring own = KnownFolder(id, nullptr);
    EXPECT_EQ(own.find(user_.Profile()), std::wstring::npos) << own;
    EXPECT_EQ(own.find(L"<failed"), std::wstring::npos) << own;
  }
  ky::unique_handle process;
  ASSERT_TRUE(::OpenProcessToken(::GetCurrentProcess(), TOKEN_QUERY | TOKEN_IMPERSONATE | TOKEN_DUPLICATE,
                                 process.put()));
  EXPECT_EQ(KnownFolder(FOLDERID_LocalAppData, process.get()), KnownFolder(FOLDERID_LocalAppData, nullptr));
}

TEST_F(StagedIdentityTest, EnvironmentCallsGiveTheStagedUsersBlockAndTheMachinesForNoToken) {
  const ky::unique_handle token = UserToken();
  ASSERT_TRUE(token);
  EXPECT_EQ(ExpandForUser(token.get(), L"%LOCALAPPDATA%\\x;%USERNAME%;%unknown%"),
            user_.Local() + L"\\x;" + user_.Name() + L";%unknown%");
  EXPECT_EQ(ExpandForUser(nullptr, L"%LOCALAPPDATA%;%USERPROFILE%;%APPDATA%"), L"%LOCALAPPDATA%;%USERPROFILE%;%APPDATA%")
      << "no user folder of the host account in the machine's block";
  wchar_t small[8] = {};
  EXPECT_FALSE(::ExpandEnvironmentStringsForUserW(token.get(), L"%USERPROFILE%", small, 8));
  EXPECT_EQ(::GetLastError(), static_cast<DWORD>(ERROR_INSUFFICIENT_BUFFER));

  const std::vector<std::wstring> machine = BlockEntries(nullptr);
  const std::vector<std::wstring> user = BlockEntries(token.get());
  ASSERT_FALSE(machine.empty());
  ASSERT_FALSE(user.empty());
  for (const std::vector<std::wstring>* block : {&machine, &user}) {
    for (std::size_t i = 1; i < block->size(); ++i) {
      const std::wstring& a = (*block)[i - 1];
      const std::wstring& b = (*block)[i];
      EXPECT_EQ(::CompareStringOrdinal(a.c_str(), static_cast<int>(a.find(L'=')), b.c_str(),
                                       static_cast<int>(b.find(L'=')), TRUE),
                CSTR_LESS_THAN)
          << "sorted by name without case: " << testing::PrintToString(a) << " before " << testing::PrintToString(b);
    }
  }
  const std::wstring machinePath = Lookup(machine, L"Path");
  EXPECT_NE(machinePath, L"<unset>");
  EXPECT_EQ(Lookup(machine, L"USERPROFILE"), L"<unset>");
  EXPECT_EQ(Lookup(machine, L"LOCALAPPDATA"), L"<unset>");
  EXPECT_EQ(Lookup(machine, L"COMPUTERNAME"), Computer());
  EXPECT_NE(Lookup(machine, L"SystemRoot"), L"<unset>");
  EXPECT_EQ(Lookup(user, L"Path"), machinePath + L";" + user_.Profile() + L"\\Tools")
      << "the machine's, then the user's";
  EXPECT_EQ(Lookup(user, L"APPDATA"), user_.Roaming());
  EXPECT_EQ(Lookup(user, L"TEMP"), user_.Local() + L"\\Temp");
  EXPECT_EQ(Lookup(user, L"USERNAME"), user_.Name());
}

}  // namespace
