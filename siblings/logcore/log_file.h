// The log file: opened on first use, kept open, rotated to "<name>.1" when it would pass
// its size limit. Not thread-safe; the logger serialises every call.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "common/unique_handle.h"

namespace logcore {

class LogFile {
 public:
  LogFile() = default;
  LogFile(const LogFile&) = delete;
  LogFile& operator=(const LogFile&) = delete;

  // The folder must end with a backslash. Closes the current file if the folder changes.
  void SetFolder(const std::wstring& folder);
  // 0 never rotates.
  void SetMaxSize(std::uint32_t bytes) { maxSize_ = bytes; }
  // Takes effect the next time the file is opened.
  void SetTruncateOnOpen(bool truncate) { truncateOnOpen_ = truncate; }

  // Appends the bytes in one write, creating the folder and the file when needed and rotating
  // first when the file already holds data and would pass the limit. False when the file
  // cannot be opened or written; the next call tries again.
  bool Append(const char* data, std::size_t size);

  void Close() { file_.reset(); }
  std::wstring Path() const;

 private:
  bool Open();
  void RotateIfFull(std::size_t incoming);

  std::wstring folder_;
  ky::unique_file file_;
  std::uint32_t maxSize_ = 0;
  bool truncateOnOpen_ = false;
};

}  // namespace logcore
