// A user's hive in the registry: HKEY_USERS\<SID> and HKEY_USERS\<SID>_Classes taken into a
// HiveImage, put back from one, and removed the way Windows unloads a hive at logoff.
// Registry links are kept as links: never followed while walking, made again on restore, and
// deleted as links (deleting one the ordinary way would delete what it points to).
#pragma once

#include <windows.h>

#include <cstddef>
#include <string>

#include "stageduser/hive_image.h"

namespace winestandins::hive {

inline constexpr wchar_t kLinkValueName[] = L"SymbolicLinkValue";
inline constexpr std::size_t kMaxDepth = 512;  // Windows' limit on key nesting

// The root's key name below HKEY_USERS: "<sid>" or "<sid>_Classes".
std::wstring RootKeyOf(const std::wstring& sid, Root root);

// True when HKEY_USERS\<sid> exists.
bool HiveLoaded(const std::wstring& sid);

// Every key with its values and every link of both roots, parents first, into `image`; 0,
// ERROR_FILE_NOT_FOUND when HKEY_USERS\<sid> does not exist (a missing classes root is left
// out), ERROR_FILE_TOO_LARGE when a value or the nesting goes beyond the file's limits, or the
// registry error; `image` untouched on failure.
[[nodiscard]] DWORD CaptureHive(const std::wstring& sid, HiveImage& image);

// Creates the image's keys with their values and its links below HKEY_USERS, over whatever is
// there; 0 or the first registry error (what was created before it stays).
[[nodiscard]] DWORD RestoreHive(const HiveImage& image);

// Deletes the links of both roots, then both trees; 0 also when nothing was there, else the
// first registry error.
[[nodiscard]] DWORD UnloadHive(const std::wstring& sid);

// Makes `path` below `root` a link to `target` ("\Registry\User\..."), creating its parent as
// an ordinary key: 0 when it is that link now (an existing link is pointed at `target`),
// ERROR_ALREADY_EXISTS when an ordinary key is in the way, or the registry error.
[[nodiscard]] DWORD CreateRegistryLink(HKEY root, const std::wstring& path, const std::wstring& target);

// The target of the link at `path` below `root`; false, `target` untouched, when there is no
// link there (no key, or an ordinary one).
[[nodiscard]] bool ReadLinkTarget(HKEY root, const std::wstring& path, std::wstring& target);

// Deletes the link at `path` below `root`, never its target; 0, ERROR_FILE_NOT_FOUND, or the error.
[[nodiscard]] DWORD DeleteRegistryLink(HKEY root, const std::wstring& path);

}  // namespace winestandins::hive
