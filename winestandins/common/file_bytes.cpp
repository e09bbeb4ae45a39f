#include "common/file_bytes.h"

#include "common/unique_handle.h"

namespace winestandins {
namespace {

constexpr DWORD kIoChunk = 1024 * 1024;

DWORD ChunkOf(std::size_t left) { return static_cast<DWORD>(left < kIoChunk ? left : kIoChunk); }

}  // namespace

DWORD ReadBoundedFile(const std::wstring& path, std::size_t maxBytes, std::vector<std::uint8_t>& bytes) {
  ky::unique_file file(
      ::CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
  if (!file) return ::GetLastError();
  LARGE_INTEGER size{};
  if (!::GetFileSizeEx(file.get(), &size)) return ::GetLastError();
  if (size.QuadPart < 0 || static_cast<std::uint64_t>(size.QuadPart) > maxBytes) return ERROR_FILE_TOO_LARGE;
  std::vector<std::uint8_t> content(static_cast<std::size_t>(size.QuadPart));
  for (std::size_t done = 0; done < content.size();) {
    DWORD read = 0;
    if (!::ReadFile(file.get(), content.data() + done, ChunkOf(content.size() - done), &read, nullptr)) {
      return ::GetLastError();
    }
    if (read == 0) return ERROR_HANDLE_EOF;  // the file shrank while it was read
    done += read;
  }
  bytes = std::move(content);
  return ERROR_SUCCESS;
}

DWORD ReplaceFileContent(const std::wstring& path, const std::vector<std::uint8_t>& bytes) {
  const std::wstring temporary = path + L".new";
  DWORD error = ERROR_SUCCESS;
  {
    ky::unique_file file(::CreateFileW(temporary.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS,
                                       FILE_ATTRIBUTE_NORMAL, nullptr));
    if (!file) return ::GetLastError();
    for (std::size_t done = 0; done < bytes.size() && error == ERROR_SUCCESS;) {
      const DWORD chunk = ChunkOf(bytes.size() - done);
      DWORD written = 0;
      ::SetLastError(ERROR_SUCCESS);
      if (!::WriteFile(file.get(), bytes.data() + done, chunk, &written, nullptr) || written != chunk) {
        error = ::GetLastError() != ERROR_SUCCESS ? ::GetLastError() : ERROR_WRITE_FAULT;
      }
      done += chunk;
    }
    if (error == ERROR_SUCCESS && !::FlushFileBuffers(file.get())) error = ::GetLastError();
  }
  if (error == ERROR_SUCCESS &&
      !::MoveFileExW(temporary.c_str(), path.c_str(), MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH)) {
    error = ::GetLastError();
  }
  if (error != ERROR_SUCCESS) ::DeleteFileW(temporary.c_str());
  return error;
}

}  // namespace winestandins
