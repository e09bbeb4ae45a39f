// Staged packages for the Store tests: a package folder with its manifest, the record the
// package list gives for it, and the family's SystemAppData key, removed afterwards.
#pragma once

#include <windows.h>

#include <gtest/gtest.h>

#include <cwchar>
#include <string>
#include <vector>

#include "common/unique_handle.h"
#include "lumera/storeappslist.h"
#include "startup/startup_items.h"
#include "startup/store_apps_enumerator.h"
#include "support/registry_values.h"
#include "support/scratch_folder.h"

namespace testing_store {

constexpr char kManifestHead[] =
    "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n"
    "<Package xmlns=\"http://schemas.microsoft.com/appx/manifest/foundation/windows10\"\n"
    "  xmlns:uap=\"http://schemas.microsoft.com/appx/manifest/uap/windows10\"\n"
    "  xmlns:uap5=\"http://schemas.microsoft.com/appx/manifest/uap/windows10/5\"\n"
    "  xmlns:desktop=\"http://schemas.microsoft.com/appx/manifest/desktop/windows10\"\n"
    "  IgnorableNamespaces=\"uap uap5 desktop\">\n"
    "  <Identity Name=\"Example.Terminal\" Publisher=\"CN=Example Corporation\" Version=\"1.21.0.0\"/>\n"
    "  <Properties>\n"
    "    <DisplayName>Example Terminal</DisplayName>\n"
    "    <PublisherDisplayName>Example Corporation</PublisherDisplayName>\n"
    "  </Properties>\n"
    "  <Applications>\n";
constexpr char kManifestTail[] = "  </Applications>\n</Package>\n";

inline std::string Manifest(const std::string& applications) { return kManifestHead + applications + kManifestTail; }

// An application whose uap5 extension declares one startup task, as Windows' own samples do.
inline std::string Uap5Application(const std::string& id, const std::string& executable, const std::string& taskId,
                                   const std::string& enabled = "false") {
  return "    <Application Id=\"" + id + "\" Executable=\"" + executable +
         "\" EntryPoint=\"Windows.FullTrustApplication\">\n"
         "      <Extensions>\n"
         "        <uap5:Extension Category=\"windows.startupTask\">\n"
         "          <uap5:StartupTask TaskId=\"" + taskId + "\" Enabled=\"" + enabled +
         "\" DisplayName=\"ms-resource:AppName\"/>\n"
         "        </uap5:Extension>\n"
         "      </Extensions>\n"
         "    </Application>\n";
}

using testsupport::UniqueSuffix;

template <std::size_t N>
void Copy(wchar_t (&target)[N], const std::wstring& text) {
  wcsncpy_s(target, N, text.c_str(), _TRUNCATE);
}

// The console user's SID: the module reaches the user's classes as
// HKEY_USERS\<SID>\Software\Classes, never through HKEY_CLASSES_ROOT.
inline const std::wstring& UserSid() {
  static const std::wstring sid = [] {
    std::wstring found;
    EXPECT_TRUE(startup::CStartupItems::GetCrtUserSid(found));
    return found;
  }();
  return sid;
}
// A key path of the user's classes, below HKEY_USERS.
inline std::wstring UserClasses(const std::wstring& path) {
  return UserSid() + L"\\" + storeapps::kUserClassesPath + path;
}
inline std::wstring SystemAppDataPath() { return UserClasses(startup::kStoreAppsKeyPath); }

inline std::wstring StateKeyOf(const std::wstring& family) { return SystemAppDataPath() + L"\\" + family; }

// A package folder holding a manifest (or none), with a unique family name; the family's
// SystemAppData key is deleted when it goes.
class StagedPackage {
 public:
  StagedPackage() {
    name_ = L"LumeraTest" + UniqueSuffix();
    fullName_ = name_ + L"_1.21.0.0_x64__8wekyb3d8bbwe";
    family_ = name_ + L"_8wekyb3d8bbwe";
  }
  ~StagedPackage() { ::RegDeleteTreeW(HKEY_USERS, StateKeyOf(family_).c_str()); }
  StagedPackage(const StagedPackage&) = delete;
  StagedPackage& operator=(const StagedPackage&) = delete;

  void WriteManifest(const std::string& text) const {
    testsupport::WriteFileBytes(folder_.file(L"AppxManifest.xml"), text);
  }
  MicrosoftStoreApp Record() const {
    MicrosoftStoreApp app{};
    Copy(app.fullName, fullName_);
    Copy(app.familyName, family_);
    Copy(app.rootFolder, Folder());
    return app;
  }
  // The folder without its trailing backslash, as Windows records it.
  std::wstring Folder() const { return folder_.path().substr(0, folder_.path().size() - 1); }
  const std::wstring& Family() const { return family_; }
  const std::wstring& FullName() const { return fullName_; }
  std::wstring Location() const { return L"HKEY_USERS\\" + StateKeyOf(family_); }

  // The task's State, or -1 when it has none.
  long long State(const std::wstring& taskId) const {
    DWORD value = 0;
    DWORD bytes = sizeof(value);
    const std::wstring key = StateKeyOf(family_) + L"\\" + taskId;
    if (::RegGetValueW(HKEY_USERS, key.c_str(), L"State", RRF_RT_REG_DWORD, nullptr, &value, &bytes) !=
        ERROR_SUCCESS) {
      return -1;
    }
    return value;
  }
  void SetState(const std::wstring& taskId, DWORD value) const {
    const std::wstring key = StateKeyOf(family_) + L"\\" + taskId;
    ASSERT_EQ(testsupport::SetRegDword(HKEY_USERS, key, L"State", value), ERROR_SUCCESS);
  }

 private:
  testsupport::ScratchFolder folder_;
  std::wstring name_;
  std::wstring fullName_;
  std::wstring family_;
};

// Written out here rather than taken from the library, so that a wrong key in it fails.
inline constexpr wchar_t kRepositoryPackages[] =
    L"Local Settings\\Software\\Microsoft\\Windows\\CurrentVersion\\AppModel\\Repository\\Packages";

// A package key under Repository\Packages, deleted when it goes.
class RepositoryEntry {
 public:
  explicit RepositoryEntry(const std::wstring& fullName)
      : key_(UserClasses(kRepositoryPackages) + L"\\" + fullName) {
    ky::unique_hkey created;
    EXPECT_EQ(::RegCreateKeyExW(HKEY_USERS, key_.c_str(), 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, created.put(),
                                nullptr),
              ERROR_SUCCESS);
  }
  ~RepositoryEntry() { ::RegDeleteTreeW(HKEY_USERS, key_.c_str()); }
  RepositoryEntry(const RepositoryEntry&) = delete;
  RepositoryEntry& operator=(const RepositoryEntry&) = delete;

  void Set(const wchar_t* name, const std::wstring& text) const {
    ASSERT_EQ(testsupport::SetRegText(HKEY_USERS, key_, name, text), ERROR_SUCCESS);
  }

 private:
  std::wstring key_;
};

// An enumerator whose package list is the given packages.
inline startup::MicrosoftStoreAppsEnumerator EnumeratorOf(std::vector<const StagedPackage*> packages) {
  return startup::MicrosoftStoreAppsEnumerator(UserSid(), [packages](const std::wstring&, std::vector<MicrosoftStoreApp>& apps) {
    for (const StagedPackage* package : packages) apps.push_back(package->Record());
    return std::uint32_t{0};
  });
}

}  // namespace testing_store
