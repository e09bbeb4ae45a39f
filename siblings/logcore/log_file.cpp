#include "log_file.h"

#include <windows.h>

#include "log_settings.h"

namespace logcore {
namespace {

constexpr wchar_t kRotatedSuffix[] = L".1";

// Creates every missing folder along the path; failures show up when the file is opened.
void CreateFolders(const std::wstring& folder) {
  for (std::size_t at = folder.find_first_of(L"\\/", 0); at != std::wstring::npos;
       at = folder.find_first_of(L"\\/", at + 1)) {
    if (at == 0 || folder[at - 1] == L':' || folder[at - 1] == L'\\') continue;
    ::CreateDirectoryW(folder.substr(0, at).c_str(), nullptr);
  }
}

}  // namespace

std::wstring LogFile::Path() const { return folder_ + kFileName; }

void LogFile::SetFolder(const std::wstring& folder) {
  if (folder == folder_) return;
  file_.reset();
  folder_ = folder;
}

bool LogFile::Open() {
  if (folder_.empty()) return false;
  CreateFolders(folder_);
  const std::wstring path = Path();
  if (truncateOnOpen_) ::DeleteFileW(path.c_str());
  // Append-only access makes every write land at the current end, whoever else appends;
  // sharing delete lets another process rotate the file while it is open here.
  file_.reset(::CreateFileW(path.c_str(), FILE_APPEND_DATA | FILE_READ_ATTRIBUTES,
                            FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr, OPEN_ALWAYS,
                            FILE_ATTRIBUTE_NORMAL, nullptr));
  return file_.valid();
}

void LogFile::RotateIfFull(std::size_t incoming) {
  if (maxSize_ == 0) return;
  LARGE_INTEGER size{};
  if (!::GetFileSizeEx(file_.get(), &size) || size.QuadPart == 0) return;
  if (static_cast<unsigned long long>(size.QuadPart) + incoming <= maxSize_) return;
  file_.reset();
  const std::wstring path = Path();
  ::MoveFileExW(path.c_str(), (path + kRotatedSuffix).c_str(), MOVEFILE_REPLACE_EXISTING);
  // Rotation must never empty the live file, so reopen in append mode even if the move failed.
  const bool truncate = truncateOnOpen_;
  truncateOnOpen_ = false;
  Open();
  truncateOnOpen_ = truncate;
}

bool LogFile::Append(const char* data, std::size_t size) {
  if (!file_ && !Open()) return false;
  RotateIfFull(size);
  if (!file_) return false;
  DWORD written = 0;
  return ::WriteFile(file_.get(), data, static_cast<DWORD>(size), &written, nullptr) && written == size;
}

}  // namespace logcore
