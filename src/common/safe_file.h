// Whole-file replacement that survives a crash: the new bytes go to a temporary file beside
// the target, are flushed to the disk and then take the target's name in one step, so the
// file on disk is always the whole old document or the whole new one.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace ky {

// Infix of the temporary files; one is left behind only when its writer dies mid-write, and the
// next successful write of the same target removes it.
inline constexpr wchar_t kSafeFileTempInfix[] = L".lumera-tmp-";

// Replaces the file at `path` (a full path) with `bytes`. 0 on success; otherwise a Windows
// error code and the file at `path` is untouched, with no temporary file left behind. Links are
// never followed: ERROR_CANT_ACCESS_FILE when the target or its folder is a reparse point
// (a symbolic link or a junction a user may have put there), and the temporary file is opened
// as itself, never through a link. One writer per target at a time: a successful write removes
// every other temporary file of the target, taking them for those of writers that died.
[[nodiscard]] std::uint32_t WriteFileWhole(const std::wstring& path, std::string_view bytes);

}  // namespace ky
