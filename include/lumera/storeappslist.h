// StoreAppsList.dll: the packaged (Microsoft Store) applications installed for a user, as
// Windows lists them in that user's classes (HKEY_USERS\<SID>_Classes, reached as
// HKEY_USERS\<SID>\Software\Classes), kPackagesKeyPath below, one key per package full
// name. A service's HKEY_CLASSES_ROOT shows no user's classes, so the user is named by SID.
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

// Appends the packages of the user with the string SID `sid` to `apps`: 0, 13
// (ERROR_INVALID_DATA) for a null list or a null, empty or malformed SID, or the registry error
// of opening the user's Packages key (2 when the user has no packages at all).
using GetStoreAppsOfUserFn = std::uint32_t(__cdecl*)(const wchar_t* sid, ky::IList<MicrosoftStoreApp>* apps);
inline constexpr char kGetStoreAppsOfUser[] = "GetStoreAppsOfUser";
inline constexpr wchar_t kUserClassesPath[] = L"Software\\Classes\\";
inline constexpr std::size_t kMaxSidChars = 184;  // SECURITY_MAX_SID_STRING_CHARACTERS
inline constexpr wchar_t kLibraryName[] = L"StoreAppsList.dll";

}  // namespace storeapps
