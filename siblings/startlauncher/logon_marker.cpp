#include "logon_marker.h"

#include <algorithm>
#include <cstdio>
#include <cwchar>
#include <sstream>

#include "common/json_file.h"
#include "common/log.h"
#include "common/safe_file.h"
#include "common/text_convert.h"
#include "startup/apps_filter.h"

namespace startlauncher {
namespace {

constexpr wchar_t kMarkerPrefix[] = L"DelayedStarts.";
constexpr wchar_t kMarkerSuffix[] = L".txt";
constexpr wchar_t kRunLockPrefix[] = L"Local\\Lumera.Delayed.";
constexpr std::uint64_t kFnvOffset = 14695981039346656037ull;
constexpr std::uint64_t kFnvPrime = 1099511628211ull;

std::wstring Hex(std::uint64_t value) {
  wchar_t text[17] = {};
  std::swprintf(text, 17, L"%016llx", static_cast<unsigned long long>(value));
  return text;
}

}  // namespace

std::wstring ThisLogonId() {
  KY_TRACE(L"startlauncher::ThisLogonId");
  ky::unique_handle token;
  TOKEN_STATISTICS statistics{};
  DWORD size = 0;
  if (!::OpenProcessToken(::GetCurrentProcess(), TOKEN_QUERY, token.put()) ||
      !::GetTokenInformation(token.get(), TokenStatistics, &statistics, sizeof statistics, &size)) {
    KY_LOG(logging::kLevelError, L"logon id not read 0x%x", ::GetLastError());
    return L"0";
  }
  const LUID id = statistics.AuthenticationId;
  return Hex((static_cast<std::uint64_t>(static_cast<std::uint32_t>(id.HighPart)) << 32) | id.LowPart);
}

std::int64_t SystemStartMs() {
  FILETIME now{};
  ::GetSystemTimeAsFileTime(&now);
  const std::uint64_t ticks = (static_cast<std::uint64_t>(now.dwHighDateTime) << 32) | now.dwLowDateTime;
  return static_cast<std::int64_t>(ticks / 10000) - static_cast<std::int64_t>(::GetTickCount64());
}

std::wstring EntryKey(const char* category, const startup::StartupItem& item) {
  const std::wstring text = ky::Utf8ToWide(category) + L"|" + startup::LowerAscii(item.location) + L"|" +
                            startup::LowerAscii(item.name) + (item.isUser != 0 ? L"|u" : L"|m");
  std::uint64_t hash = kFnvOffset;
  for (const wchar_t c : text) {
    hash = (hash ^ static_cast<std::uint16_t>(c)) * kFnvPrime;
  }
  return Hex(hash);
}

CLogonMarker::CLogonMarker(const std::wstring& folder, const std::wstring& logonId, std::int64_t bootStartMs)
    : path_(folder + kMarkerPrefix + logonId + kMarkerSuffix), bootStartMs_(bootStartMs) {
  KY_TRACE(L"startlauncher::CLogonMarker::CLogonMarker");
  std::string bytes;
  if (ky::ReadFileBytes(path_, bytes, kMaxMarkerBytes) != ky::JsonReadResult::kOk) return;
  std::istringstream lines(bytes);
  std::string line;
  long long recorded = 0;
  if (!std::getline(lines, line) || std::sscanf(line.c_str(), "%lld", &recorded) != 1) return;
  const std::int64_t apart = recorded > bootStartMs ? recorded - bootStartMs : bootStartMs - recorded;
  if (apart >= kSameBootToleranceMs) {
    KY_LOG(logging::kLevelInfo, L"marker %s is of another boot", path_.c_str());
    return;
  }
  while (std::getline(lines, line)) {
    if (!line.empty()) keys_.push_back(ky::Utf8ToWide(line));
  }
}

bool CLogonMarker::Contains(const std::wstring& key) const {
  return std::find(keys_.begin(), keys_.end(), key) != keys_.end();
}

std::uint32_t CLogonMarker::Add(const std::wstring& key) {
  KY_TRACE(L"startlauncher::CLogonMarker::Add");
  keys_.push_back(key);
  std::string text = std::to_string(bootStartMs_) + "\n";
  for (const std::wstring& each : keys_) text += ky::WideToUtf8(each) + "\n";
  const std::uint32_t written = ky::WriteFileWhole(path_, text);
  if (written != 0) KY_LOG(logging::kLevelError, L"marker %s not written 0x%x", path_.c_str(), written);
  return written;
}

CLogonRunLock::CLogonRunLock(const std::wstring& logonId) {
  mutex_.reset(::CreateMutexW(nullptr, FALSE, (kRunLockPrefix + logonId).c_str()));
  if (!mutex_) return;
  const DWORD waited = ::WaitForSingleObject(mutex_.get(), 0);
  held_ = waited == WAIT_OBJECT_0 || waited == WAIT_ABANDONED;
}

CLogonRunLock::~CLogonRunLock() {
  if (held_) ::ReleaseMutex(mutex_.get());
}

}  // namespace startlauncher
