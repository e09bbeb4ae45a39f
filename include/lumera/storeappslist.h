// StoreAppsList.dll: the packaged (Microsoft Store) applications installed for the user, as
// Windows lists them under HKEY_CLASSES_ROOT, kPackagesKeyPath below, one key per package
// full name.
//
// Loaded at run time; its one export appends a MicrosoftStoreApp record per package to a
// list the caller owns. A package full name has the form
// <Name>_<Version>_<Architecture>_<ResourceId>_<PublisherId> (the resource id often empty);
// its family name is <Name>_<PublisherId>. Packages without a "PackageRootFolder" value or
// whose full name does not have five parts are left out. Thread-safe, takes no lock, never
// throws.
#pragma once

#include <windows.h>

#include <cstddef>
#include <cstdint>

#include "lumera/ky_list.h"

namespace storeapps {

inline constexpr std::size_t kPackageNameChars = 128;  // full names are at most 127 characters
inline constexpr std::size_t kFolderChars = 1024;
inline constexpr std::size_t kDisplayChars = 256;

inline constexpr wchar_t kPackagesKeyPath[] =
    L"Local Settings\\Software\\Microsoft\\Windows\\CurrentVersion\\AppModel\\Repository\\Packages";
inline constexpr wchar_t kRootFolderValue[] = L"PackageRootFolder";
inline constexpr wchar_t kDisplayNameValue[] = L"DisplayName";
inline constexpr wchar_t kPublisherDisplayNameValue[] = L"PublisherDisplayName";

}  // namespace storeapps

// One installed package. Strings are zero-terminated and truncated to their arrays; the
// display texts are empty when the package's key has none (they are often resource
// references such as "@{...}" or "ms-resource:...", left as they are).
struct MicrosoftStoreApp {
  wchar_t fullName[storeapps::kPackageNameChars];
  wchar_t familyName[storeapps::kPackageNameChars];
  wchar_t rootFolder[storeapps::kFolderChars];
  wchar_t displayName[storeapps::kDisplayChars];
  wchar_t publisherDisplayName[storeapps::kDisplayChars];
};

namespace storeapps {

// Appends the user's packages to `apps`: 0, 13 (ERROR_INVALID_DATA) for a null list, or the
// registry error of opening the Packages key (2 when Windows keeps no packages at all).
using GetStoreAppsFn = std::uint32_t(__cdecl*)(ky::IList<MicrosoftStoreApp>* apps);
inline constexpr char kGetStoreApps[] = "GetStoreApps";
inline constexpr wchar_t kLibraryName[] = L"StoreAppsList.dll";

}  // namespace storeapps
