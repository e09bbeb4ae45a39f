#include "startup/storage_lock.h"

#include <sddl.h>

#include <cstdint>
#include <cwchar>

#include "common/log.h"

namespace startup::storage {
namespace {

constexpr std::uint64_t kFnvOffset = 14695981039346656037ULL;
constexpr std::uint64_t kFnvPrime = 1099511628211ULL;

std::wstring FullLowerPath(const std::wstring& path) {
  std::wstring full(MAX_PATH, L'\0');
  DWORD length = ::GetFullPathNameW(path.c_str(), static_cast<DWORD>(full.size()), full.data(), nullptr);
  if (length >= full.size()) {
    full.resize(length);
    length = ::GetFullPathNameW(path.c_str(), static_cast<DWORD>(full.size()), full.data(), nullptr);
  }
  full = length == 0 || length >= full.size() ? path : full.substr(0, length);
  if (full.empty()) return full;
  std::wstring lower(full.size(), L'\0');
  const int mapped = ::LCMapStringEx(LOCALE_NAME_INVARIANT, LCMAP_LOWERCASE, full.c_str(), static_cast<int>(full.size()),
                                     lower.data(), static_cast<int>(lower.size()), nullptr, nullptr, 0);
  return mapped == static_cast<int>(full.size()) ? lower : full;
}

}  // namespace

std::wstring StoreLockName(const std::wstring& path) {
  std::uint64_t hash = kFnvOffset;
  for (const wchar_t unit : FullLowerPath(path)) {
    hash ^= static_cast<std::uint16_t>(unit) & 0xFFu;
    hash *= kFnvPrime;
    hash ^= static_cast<std::uint16_t>(unit) >> 8;
    hash *= kFnvPrime;
  }
  wchar_t hex[17] = {};
  std::swprintf(hex, 17, L"%016llx", static_cast<unsigned long long>(hash));
  return std::wstring(kStoreLockPrefix) + hex;
}

CStoreLock::CStoreLock(const std::wstring& path, DWORD waitMs) {
  KY_TRACE(L"startup::storage::CStoreLock");
  const std::wstring name = StoreLockName(path);
  ky::unique_local descriptor;
  SECURITY_ATTRIBUTES attributes{sizeof attributes, nullptr, FALSE};
  PSECURITY_DESCRIPTOR converted = nullptr;
  if (::ConvertStringSecurityDescriptorToSecurityDescriptorW(kStoreLockSddl, SDDL_REVISION_1, &converted, nullptr)) {
    descriptor.reset(converted);
    attributes.lpSecurityDescriptor = converted;
  }
  // Only the rights a waiter needs: the mutex may exist already, made by another account.
  mutex_.reset(::CreateMutexExW(&attributes, name.c_str(), 0, SYNCHRONIZE | MUTEX_MODIFY_STATE));
  if (!mutex_) {
    KY_LOG(logging::kLevelError, L"CreateMutexEx %s for %s failed 0x%x", name.c_str(), path.c_str(), ::GetLastError());
    return;
  }
  switch (::WaitForSingleObject(mutex_.get(), waitMs)) {
    case WAIT_OBJECT_0:
      held_ = true;
      return;
    case WAIT_ABANDONED:
      KY_LOG(logging::kLevelWarning, L"Storage lock %s of %s abandoned by its holder: taken", name.c_str(), path.c_str());
      held_ = true;
      return;
    case WAIT_TIMEOUT:
      KY_LOG(logging::kLevelError, L"Storage lock %s of %s not taken within %u ms", name.c_str(), path.c_str(), waitMs);
      return;
    default:
      KY_LOG(logging::kLevelError, L"Storage lock %s of %s: wait failed 0x%x", name.c_str(), path.c_str(), ::GetLastError());
      return;
  }
}

CStoreLock::~CStoreLock() {
  if (held_) ::ReleaseMutex(mutex_.get());
}

}  // namespace startup::storage
