#include "agent_store.h"

#include <algorithm>
#include <cwchar>
#include <mutex>

#include "common/module_library.h"
#include "common/text_convert.h"
#include "lumera/appagentdp.h"

namespace appagentdp {
namespace {

constexpr std::size_t kMaxNameChars = 255;
constexpr DWORD kLockRetryMs = 10;

bool IsFolder(const std::wstring& path) {
  const DWORD attributes = ::GetFileAttributesW(path.c_str());
  return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
}

}  // namespace

bool IsPlainName(const wchar_t* name) {
  if (name == nullptr) return false;
  const std::size_t length = std::wcslen(name);
  if (length == 0 || length > kMaxNameChars) return false;
  if (name[0] == L'.') return false;  // ".", ".." and the store's own ".lock"
  return std::wcspbrk(name, L"\\/:*?\"<>|") == nullptr;
}

AgentStore& Store() {
  static AgentStore store;
  return store;
}

std::uint32_t AgentStore::Init(const std::wstring& agentPath) {
  if (!ky::IsAbsolutePath(agentPath)) return ERROR_BAD_PATHNAME;
  if (!IsFolder(agentPath)) return ERROR_PATH_NOT_FOUND;
  std::unique_lock hold(lock_);
  root_ = agentPath;
  if (root_.back() != L'\\') root_.push_back(L'\\');
  return 0;
}

std::wstring AgentStore::AppFolder(const std::wstring& app) const {
  std::shared_lock hold(lock_);
  return root_.empty() ? std::wstring() : root_ + app + L"\\";
}

std::uint32_t AgentStore::Apps(std::vector<std::wstring>& names) const {
  const std::wstring root = AppFolder(L"");
  if (root.empty()) return ERROR_NOT_READY;
  WIN32_FIND_DATAW data{};
  ky::unique_find find(::FindFirstFileW((root + L"*").c_str(), &data));
  if (!find.valid()) return ky::LastErrorOr(ERROR_PATH_NOT_FOUND);
  do {
    if ((data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0 && IsPlainName(data.cFileName)) {
      names.emplace_back(data.cFileName);
    }
  } while (::FindNextFileW(find.get(), &data));
  std::sort(names.begin(), names.end());
  return 0;
}

std::uint32_t AgentStore::Remove(const std::wstring& app) const {
  const std::wstring folder = AppFolder(app);
  if (folder.empty()) return ERROR_NOT_READY;
  AgentTransaction* transaction = nullptr;
  if (!IsFolder(folder)) return ERROR_NOT_FOUND;
  const std::uint32_t begun = AgentTransaction::Begin(folder, kLockWaitMs, &transaction);
  if (begun != 0) return begun;
  WIN32_FIND_DATAW data{};
  std::uint32_t result = 0;
  {
    ky::unique_find find(::FindFirstFileW((folder + L"*").c_str(), &data));
    if (find.valid()) {
      do {
        const std::wstring name = data.cFileName;
        if ((data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0 || name == kLockFileName) continue;
        if (!::DeleteFileW((folder + name).c_str()) && result == 0) result = ky::LastErrorOr(ERROR_ACCESS_DENIED);
      } while (::FindNextFileW(find.get(), &data));
    }
  }
  delete transaction;  // releases the lock file, which FILE_FLAG_DELETE_ON_CLOSE removes
  if (!::RemoveDirectoryW(folder.c_str()) && result == 0) result = ky::LastErrorOr(ERROR_DIR_NOT_EMPTY);
  return result;
}

std::uint32_t AgentTransaction::Begin(const std::wstring& folder, std::uint32_t waitMs, AgentTransaction** out) {
  *out = nullptr;
  if (!IsFolder(folder) && !::CreateDirectoryW(folder.c_str(), nullptr)) {
    const std::uint32_t error = ky::LastErrorOr(ERROR_PATH_NOT_FOUND);
    if (error != ERROR_ALREADY_EXISTS) return error;
  }
  const std::wstring lockPath = folder + kLockFileName;
  const ULONGLONG deadline = ::GetTickCount64() + waitMs;
  for (;;) {
    // No sharing: the open handle is the lock, for threads and processes alike.
    ky::unique_file lock(::CreateFileW(lockPath.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_ALWAYS,
                                       FILE_ATTRIBUTE_HIDDEN | FILE_FLAG_DELETE_ON_CLOSE, nullptr));
    if (lock.valid()) {
      *out = new AgentTransaction(folder, std::move(lock));
      return 0;
    }
    const std::uint32_t error = ky::LastErrorOr(ERROR_SHARING_VIOLATION);
    if (error != ERROR_SHARING_VIOLATION && error != ERROR_ACCESS_DENIED) return error;
    if (::GetTickCount64() >= deadline) return ERROR_TIMEOUT;
    ::Sleep(kLockRetryMs);  // another holder's handle cannot be waited on; poll until the deadline
  }
}

std::uint32_t ReadValueFile(const std::wstring& path, std::size_t maxBytes, std::wstring& text) {
  ky::unique_file file(::CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_DELETE, nullptr,
                                     OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
  if (!file.valid()) return ky::LastErrorOr(ERROR_FILE_NOT_FOUND);
  LARGE_INTEGER size{};
  if (!::GetFileSizeEx(file.get(), &size)) return ky::LastErrorOr(ERROR_READ_FAULT);
  if (size.QuadPart < 0 || static_cast<std::uint64_t>(size.QuadPart) > maxBytes) return ERROR_FILE_TOO_LARGE;
  std::string bytes(static_cast<std::size_t>(size.QuadPart), '\0');
  DWORD read = 0;
  if (!bytes.empty() && (!::ReadFile(file.get(), bytes.data(), static_cast<DWORD>(bytes.size()), &read, nullptr) ||
                         read != bytes.size())) {
    return ky::LastErrorOr(ERROR_READ_FAULT);
  }
  text = ky::Utf8ToWide(bytes);
  return 0;
}

std::uint32_t AgentTransaction::Get(const std::wstring& name, const wchar_t** value) {
  auto pending = pending_.find(name);
  std::wstring text;
  if (pending != pending_.end()) {
    text = pending->second;
  } else {
    const std::uint32_t result = ReadValueFile(folder_ + name, kMaxValueBytes, text);
    if (result != 0) return result == ERROR_PATH_NOT_FOUND ? ERROR_FILE_NOT_FOUND : result;
  }
  auto& kept = read_[name];
  kept = std::move(text);
  *value = kept.c_str();
  return 0;
}

std::uint32_t AgentTransaction::Set(const std::wstring& name, const std::wstring& value) {
  const std::string bytes = ky::WideToUtf8(value);
  if (bytes.size() > kMaxValueBytes) return ERROR_FILE_TOO_LARGE;
  ky::unique_file file(::CreateFileW((folder_ + name + kPendingSuffix).c_str(), GENERIC_WRITE, 0, nullptr,
                                     CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
  if (!file.valid()) return ky::LastErrorOr(ERROR_WRITE_FAULT);
  DWORD written = 0;
  if (!bytes.empty() && (!::WriteFile(file.get(), bytes.data(), static_cast<DWORD>(bytes.size()), &written, nullptr) ||
                         written != bytes.size())) {
    return ky::LastErrorOr(ERROR_WRITE_FAULT);
  }
  if (!::FlushFileBuffers(file.get())) return ky::LastErrorOr(ERROR_WRITE_FAULT);
  pending_[name] = value;
  return 0;
}

std::uint32_t AgentTransaction::Commit() {
  std::uint32_t result = 0;
  for (const auto& entry : pending_) {
    const std::wstring target = folder_ + entry.first;
    if (!::MoveFileExW((target + kPendingSuffix).c_str(), target.c_str(),
                       MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH) &&
        result == 0) {
      result = ky::LastErrorOr(ERROR_WRITE_FAULT);
    }
  }
  pending_.clear();
  return result;
}

}  // namespace appagentdp
