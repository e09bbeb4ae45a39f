#include "common/safe_file.h"

#include <windows.h>

#include <algorithm>
#include <atomic>

#include "common/unique_handle.h"

namespace ky {
namespace {

constexpr int kNameAttempts = 16;
// The replace step is tried again for a short moment: a scanner or indexer that opened the
// target without sharing delete makes the rename fail until it lets go.
constexpr int kReplaceAttempts = 10;
constexpr DWORD kReplaceRetryMs = 20;

std::atomic<unsigned> g_tempCounter{0};

bool IsReparsePoint(const std::wstring& path) {
  const DWORD attributes = ::GetFileAttributesW(path.c_str());
  return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0;
}

std::wstring FolderOf(const std::wstring& path) {
  const std::size_t slash = path.find_last_of(L"\\/");
  return slash == std::wstring::npos ? std::wstring() : path.substr(0, slash);
}

// Creates a new temporary file beside `path`; CREATE_NEW refuses any name that already exists,
// a link planted there included.
unique_file CreateTemporary(const std::wstring& path, std::wstring& temporary, DWORD& error) {
  for (int attempt = 0; attempt < kNameAttempts; ++attempt) {
    temporary = path + kSafeFileTempInfix + std::to_wstring(::GetCurrentProcessId()) + L"-" +
                std::to_wstring(g_tempCounter.fetch_add(1)) + L"-" + std::to_wstring(::GetTickCount());
    unique_file file(::CreateFileW(temporary.c_str(), GENERIC_WRITE | DELETE, 0, nullptr, CREATE_NEW,
                                   FILE_ATTRIBUTE_NORMAL | FILE_FLAG_OPEN_REPARSE_POINT, nullptr));
    if (file) return file;
    error = ::GetLastError();
    if (error != ERROR_FILE_EXISTS && error != ERROR_ALREADY_EXISTS) break;
  }
  temporary.clear();
  return unique_file();
}

DWORD WriteAll(HANDLE file, std::string_view bytes) {
  while (!bytes.empty()) {
    const DWORD chunk = static_cast<DWORD>(std::min<std::size_t>(bytes.size(), 1u << 30));
    DWORD written = 0;
    if (!::WriteFile(file, bytes.data(), chunk, &written, nullptr)) return ::GetLastError();
    if (written == 0) return ERROR_WRITE_FAULT;
    bytes.remove_prefix(written);
  }
  return ::FlushFileBuffers(file) ? ERROR_SUCCESS : ::GetLastError();
}

// Temporary files of this target left by writers that died before their rename. Callers keep
// one writer per target at a time (the store under its lock), so any other is stale.
void RemoveStaleTemporaries(const std::wstring& path) {
  const std::wstring folder = FolderOf(path);
  WIN32_FIND_DATAW found{};
  unique_find find(::FindFirstFileW((path + kSafeFileTempInfix + L"*").c_str(), &found));
  if (!find) return;
  do {
    if ((found.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) == 0) {
      ::DeleteFileW((folder.empty() ? std::wstring(found.cFileName) : folder + L"\\" + found.cFileName).c_str());
    }
  } while (::FindNextFileW(find.get(), &found));
}

DWORD Replace(const std::wstring& temporary, const std::wstring& path) {
  DWORD error = ERROR_SUCCESS;
  for (int attempt = 0; attempt < kReplaceAttempts; ++attempt) {
    if (attempt > 0) ::Sleep(kReplaceRetryMs);
    if (::MoveFileExW(temporary.c_str(), path.c_str(), MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH)) {
      return ERROR_SUCCESS;
    }
    error = ::GetLastError();
    if (error != ERROR_SHARING_VIOLATION && error != ERROR_ACCESS_DENIED && error != ERROR_LOCK_VIOLATION) break;
  }
  return error;
}

}  // namespace

std::uint32_t WriteFileWhole(const std::wstring& path, std::string_view bytes) {
  // A service writing into a folder a user controls must not be steered elsewhere by a link.
  const std::wstring folder = FolderOf(path);
  if ((!folder.empty() && IsReparsePoint(folder)) || IsReparsePoint(path)) return ERROR_CANT_ACCESS_FILE;
  std::wstring temporary;
  DWORD error = ERROR_SUCCESS;
  {
    unique_file file = CreateTemporary(path, temporary, error);
    if (!file) return error != ERROR_SUCCESS ? error : ERROR_CANNOT_MAKE;
    error = WriteAll(file.get(), bytes);
  }
  if (error == ERROR_SUCCESS) {
    // Checked again just before the rename: the link may have been put there meanwhile.
    error = IsReparsePoint(path) ? ERROR_CANT_ACCESS_FILE : Replace(temporary, path);
  }
  if (error != ERROR_SUCCESS) {
    ::DeleteFileW(temporary.c_str());
    return error;
  }
  RemoveStaleTemporaries(path);
  return ERROR_SUCCESS;
}

}  // namespace ky
