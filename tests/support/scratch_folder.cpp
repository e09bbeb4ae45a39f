#include "support/scratch_folder.h"

#include <windows.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <system_error>

#include "common/module_library.h"
#include "common/unique_handle.h"

namespace testsupport {
namespace {

std::atomic<unsigned> g_nextFolder{0};

}  // namespace

ScratchFolder::ScratchFolder() {
  wchar_t temp[MAX_PATH + 1] = {};
  const DWORD n = ::GetTempPathW(MAX_PATH + 1, temp);
  const std::wstring base(temp, n);
  for (unsigned attempt = 0; path_.empty() && attempt < 100; ++attempt) {
    const std::wstring candidate = base + L"lumera-test-" + std::to_wstring(::GetCurrentProcessId()) + L"-" +
                                   std::to_wstring(g_nextFolder.fetch_add(1)) + L"\\";
    if (::CreateDirectoryW(candidate.c_str(), nullptr)) path_ = candidate;
  }
}

ScratchFolder::~ScratchFolder() {
  if (path_.empty()) return;
  std::error_code ignored;
  std::filesystem::remove_all(std::filesystem::path(path_), ignored);
}

std::wstring UniqueSuffix() {
  static std::atomic<unsigned> next{0};
  return std::to_wstring(::GetCurrentProcessId()) + L"x" + std::to_wstring(next.fetch_add(1) + 1);
}

std::wstring ExeFolder() { return ky::ModuleFolder(nullptr); }

std::string ReadFileBytes(const std::wstring& path) {
  ky::unique_file file(::CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                     nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
  std::string bytes;
  if (!file) return bytes;
  char chunk[64 * 1024];
  DWORD read = 0;
  while (::ReadFile(file.get(), chunk, sizeof(chunk), &read, nullptr) && read > 0) bytes.append(chunk, read);
  return bytes;
}

std::wstring WriteFileBytes(const std::wstring& path, const std::string& content) {
  std::ofstream(std::filesystem::path(path), std::ios::binary) << content;
  return path;
}

}  // namespace testsupport
