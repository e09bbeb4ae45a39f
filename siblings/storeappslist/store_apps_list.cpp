// StoreAppsList.dll: a user's packages from the AppModel repository key of the user's classes.
#include <windows.h>

#include <cwchar>
#include <new>
#include <string>
#include <vector>

#include "common/unique_handle.h"
#include "lumera/storeappslist.h"

namespace {

constexpr DWORD kMaxKeyNameChars = 256;  // a registry key name is at most 255 characters
constexpr wchar_t kSeparator = L'_';
constexpr std::size_t kFullNameParts = 5;  // name, version, architecture, resource id, publisher id

template <std::size_t N>
void CopyTruncated(wchar_t (&target)[N], const std::wstring& text) {
  const std::size_t count = text.size() < N - 1 ? text.size() : N - 1;
  text.copy(target, count);
  target[count] = L'\0';
}

// <Name>_<PublisherId> of <Name>_<Version>_<Architecture>_<ResourceId>_<PublisherId>; false
// when the full name does not have exactly five non-empty-where-required parts.
bool FamilyNameOf(const std::wstring& fullName, std::wstring& family) {
  std::vector<std::wstring> parts(1);
  for (const wchar_t c : fullName) {
    if (c == kSeparator) {
      parts.emplace_back();
    } else {
      parts.back() += c;
    }
  }
  if (parts.size() != kFullNameParts || parts.front().empty() || parts.back().empty()) return false;
  family = parts.front() + kSeparator + parts.back();
  return true;
}

// A string value of the key, or empty when it is missing, not a string or too long.
std::wstring StringValue(HKEY key, const wchar_t* name, std::size_t maxChars) {
  std::vector<wchar_t> buffer(maxChars + 1, L'\0');
  DWORD bytes = static_cast<DWORD>(maxChars * sizeof(wchar_t));
  if (::RegGetValueW(key, nullptr, name, RRF_RT_REG_SZ | RRF_RT_REG_EXPAND_SZ | RRF_NOEXPAND, nullptr, buffer.data(),
                     &bytes) != ERROR_SUCCESS) {
    return {};
  }
  return buffer.data();
}

void AddPackage(HKEY packages, const std::wstring& fullName, ky::IList<MicrosoftStoreApp>& apps) {
  std::wstring family;
  if (!FamilyNameOf(fullName, family)) return;
  ky::unique_hkey key;
  if (::RegOpenKeyExW(packages, fullName.c_str(), 0, KEY_QUERY_VALUE, key.put()) != ERROR_SUCCESS) return;
  const std::wstring root = StringValue(key.get(), storeapps::kRootFolderValue, storeapps::kFolderChars - 1);
  if (root.empty()) return;
  MicrosoftStoreApp app{};
  CopyTruncated(app.fullName, fullName);
  CopyTruncated(app.familyName, family);
  CopyTruncated(app.rootFolder, root);
  CopyTruncated(app.displayName,
                StringValue(key.get(), storeapps::kDisplayNameValue, storeapps::kDisplayChars - 1));
  CopyTruncated(app.publisherDisplayName,
                StringValue(key.get(), storeapps::kPublisherDisplayNameValue, storeapps::kDisplayChars - 1));
  apps.Add(app);
}

// "S-1-..." with nothing that could lead the key path elsewhere.
bool IsSidText(const wchar_t* sid) {
  if (sid == nullptr || std::wcsncmp(sid, L"S-1-", 4) != 0) return false;
  std::size_t chars = 0;
  for (; sid[chars] != L'\0'; ++chars) {
    if (chars >= storeapps::kMaxSidChars) return false;
    const wchar_t c = sid[chars];
    if (!(c == L'-' || c == L'S' || (c >= L'0' && c <= L'9'))) return false;
  }
  return true;
}

std::uint32_t ListPackages(const wchar_t* sid, ky::IList<MicrosoftStoreApp>& apps) {
  const std::wstring keyPath = std::wstring(sid) + L"\\" + storeapps::kUserClassesPath + storeapps::kPackagesKeyPath;
  ky::unique_hkey packages;
  const LSTATUS opened = ::RegOpenKeyExW(HKEY_USERS, keyPath.c_str(), 0, KEY_ENUMERATE_SUB_KEYS, packages.put());
  if (opened != ERROR_SUCCESS) return static_cast<std::uint32_t>(opened);
  for (DWORD index = 0;; ++index) {
    wchar_t name[kMaxKeyNameChars] = {};
    DWORD chars = kMaxKeyNameChars;
    const LSTATUS status = ::RegEnumKeyExW(packages.get(), index, name, &chars, nullptr, nullptr, nullptr, nullptr);
    if (status == ERROR_NO_MORE_ITEMS) break;
    if (status != ERROR_SUCCESS) continue;
    if (chars >= storeapps::kPackageNameChars) continue;
    AddPackage(packages.get(), std::wstring(name, chars), apps);
  }
  return ERROR_SUCCESS;
}

}  // namespace

extern "C" std::uint32_t __cdecl GetStoreAppsOfUser(const wchar_t* sid, ky::IList<MicrosoftStoreApp>* apps) {
  if (apps == nullptr || !IsSidText(sid)) return ERROR_INVALID_DATA;
  try {
    return ListPackages(sid, *apps);
  } catch (const std::bad_alloc&) {
    return ERROR_OUTOFMEMORY;
  }
}
