// File-system helpers for tests: a private folder per test, removed with everything in it
// when the test ends, and the test program's own folder.
#pragma once

#include <string>

namespace testsupport {

class ScratchFolder {
 public:
  // Creates a new, empty folder under the user's temporary folder.
  ScratchFolder();
  ~ScratchFolder();
  ScratchFolder(const ScratchFolder&) = delete;
  ScratchFolder& operator=(const ScratchFolder&) = delete;

  // Ends with a backslash.
  const std::wstring& path() const { return path_; }
  std::wstring file(const std::wstring& name) const { return path_ + name; }

 private:
  std::wstring path_;
};

// "<process id>x<n>", new on every call, for names no other test or test program uses.
std::wstring UniqueSuffix();

// The folder of the running program, ending with a backslash.
std::wstring ExeFolder();

// The whole file as bytes; empty when it cannot be read.
std::string ReadFileBytes(const std::wstring& path);

// Writes `content` into the file (replacing it) and returns its path.
std::wstring WriteFileBytes(const std::wstring& path, const std::string& content = "x");

}  // namespace testsupport
