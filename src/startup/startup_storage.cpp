#include "startup/startup_storage.h"

#include <windows.h>
#include <shlobj.h>

#include "common/json_file.h"
#include "common/log.h"
#include "common/module_library.h"
#include "common/safe_file.h"
#include "common/unique_handle.h"
#include "startup/storage_lock.h"

namespace startup::storage {
namespace {

// A file this large was not written by the store; refusing it bounds the parser's work.
constexpr std::size_t kMaxFileBytes = 16 * 1024 * 1024;
constexpr std::size_t kMaxKeptBytes = 4 * kMaxFileBytes;
constexpr std::int64_t kUnixEpochSeconds = 11644473600LL;

std::int64_t NowUnixSeconds() {
  FILETIME now{};
  ::GetSystemTimeAsFileTime(&now);
  const auto ticks = static_cast<std::int64_t>(ky::FileTimeToU64(now));
  return ticks / 10000000 - kUnixEpochSeconds;
}

ky::unique_file OpenForReading(const std::wstring& path) {
  return ky::unique_file(::CreateFileW(path.c_str(), GENERIC_READ,
                                       FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                       OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
}

}  // namespace

CStartupItemsStorage& CStartupItemsStorage::Instance() {
  static CStartupItemsStorage instance;
  return instance;
}

void CStartupItemsStorage::Init(const std::wstring& path) {
  KY_TRACE(L"CStartupItemsStorage::Init");
  path_ = path;
  KY_LOG(logging::kLevelInfo, L"storage=%s", path_.c_str());
  if (!OpenForReading(path_)) notLoaded_ = 1;
}

CStartupItemsStorage::Loaded CStartupItemsStorage::Read(picojson::value& document) const {
  picojson::value parsed;
  std::string error;
  const ky::JsonReadResult read = ky::ReadJsonFile(path_, parsed, error, kMaxFileBytes);
  if (read == ky::JsonReadResult::kOk) {
    document = std::move(parsed);
    return Loaded::kYes;
  }
  if (read == ky::JsonReadResult::kTooLarge) {
    logging::Write(logging::kLevelWarning, L"CStartupItemsStorage::Read", L"%s holds more than %u bytes: not read",
                   path_.c_str(), static_cast<unsigned>(kMaxFileBytes));
  }
  if (read == ky::JsonReadResult::kCannotOpen && ::GetFileAttributesW(path_.c_str()) == INVALID_FILE_ATTRIBUTES) {
    return Loaded::kMissing;
  }
  return Loaded::kUnreadable;
}

bool CStartupItemsStorage::KeepUnreadable() const {
  KY_TRACE(L"CStartupItemsStorage::KeepUnreadable");
  const std::wstring kept = path_ + kUnreadableSuffix;
  std::string bytes;
  std::uint32_t copied = ERROR_FILE_TOO_LARGE;
  if (ky::ReadFileBytes(path_, bytes, kMaxKeptBytes) == ky::JsonReadResult::kOk) copied = ky::WriteFileWhole(kept, bytes);
  if (copied != 0) {
    KY_LOG(logging::kLevelError, L"Failed to keep unreadable %s as %s 0x%x", path_.c_str(), kept.c_str(), copied);
    return false;
  }
  KY_LOG(logging::kLevelWarning, L"Unreadable %s kept as %s", path_.c_str(), kept.c_str());
  return true;
}

bool CStartupItemsStorage::LockedLoad(picojson::value& document) const {
  const CStoreLock lock(path_);
  return lock.Held() && Load(document);
}

bool CStartupItemsStorage::Save(const picojson::value& document) const {
  const std::uint32_t written = ky::WriteFileWhole(path_, document.serialize());
  if (written != 0) {
    logging::Write(logging::kLevelError, L"CStartupItemsStorage::Save", L"WriteFileWhole %s failed 0x%x", path_.c_str(),
                   written);
  }
  return written == 0;
}

std::uint32_t CStartupItemsStorage::SaveStartupItems(const StartupItemList& items, const std::string& section) {
  KY_TRACE(L"CStartupItemsStorage::SaveStartupItems");
  const CStoreLock lock(path_);
  if (!lock.Held()) {
    KY_LOG(logging::kLevelError, L"Save failed");
    return kStorageFailed;
  }
  picojson::value document;
  const Loaded loaded = Read(document);
  if (loaded != Loaded::kYes) {
    KY_LOG(logging::kLevelError, L"Failed load file");
    document = picojson::value(picojson::object());
  }
  const bool replacesContent =
      loaded == Loaded::kUnreadable || (loaded == Loaded::kYes && !AppendKeepsContent(document, section));
  AppendItems(document, items, section, NowUnixSeconds());
  if ((replacesContent && !KeepUnreadable()) || !Save(document)) {
    KY_LOG(logging::kLevelError, L"Save failed");
    return kStorageFailed;
  }
  return 0;
}

std::uint32_t CStartupItemsStorage::SaveStartupItem(const StartupItemPtr& item, const std::string& section) {
  return SaveStartupItems(StartupItemList{item}, section);
}

std::uint32_t CStartupItemsStorage::RemoveStartupItems(const StartupItemList& items, const std::string& section) {
  KY_TRACE(L"CStartupItemsStorage::RemoveStartupItems");
  if (items.empty()) return 0;
  const CStoreLock lock(path_);
  if (!lock.Held()) {
    KY_LOG(logging::kLevelError, L"Save failed");
    return kStorageFailed;
  }
  picojson::value document;
  if (!Load(document)) {
    KY_LOG(logging::kLevelError, L"Failed load file");
    return 0;
  }
  RemoveItems(document, items, section);
  if (!Save(document)) {
    KY_LOG(logging::kLevelError, L"Save failed");
    return kStorageFailed;
  }
  return 0;
}

std::size_t CStartupItemsStorage::ReadBounded(const picojson::value& document, const std::string& section,
                                              StartupItemList& items, std::size_t limit) {
  const std::size_t before = items.size();
  logging::Write(logging::kLevelDebug, L"CStartupItemsStorage::LoadStartupItems", L"strSection: %S", section.c_str());
  std::size_t leftOut = ReadSection(document, kUserKey, section, 1, items, limit);
  const std::size_t read = items.size() - before;
  logging::Write(logging::kLevelDebug, L"CStartupItemsStorage::LoadStartupItems", L"strSection: %S", section.c_str());
  return leftOut + ReadSection(document, kSystemKey, section, 0, items, limit - read);
}

std::uint32_t CStartupItemsStorage::LoadStartupItems(const std::string& section, StartupItemList& items,
                                                     std::size_t limit) {
  KY_TRACE(L"CStartupItemsStorage::LoadStartupItems");
  picojson::value document;
  if (!LockedLoad(document)) return kStorageFailed;
  if (!document.is<picojson::object>()) return 0;
  if (const std::size_t leftOut = ReadBounded(document, section, items, limit); leftOut != 0) {
    KY_LOG(logging::kLevelWarning, L"%s: %u records left out, beyond the first %u (%S %u)", path_.c_str(),
           static_cast<unsigned>(leftOut), static_cast<unsigned>(limit), section.c_str(), static_cast<unsigned>(leftOut));
  }
  return 0;
}

std::uint32_t CStartupItemsStorage::LoadSections(const std::vector<std::string>& sections,
                                                 std::vector<StartupItemList>& lists, std::size_t limit) {
  KY_TRACE(L"CStartupItemsStorage::LoadSections");
  lists.assign(sections.size(), StartupItemList());
  picojson::value document;
  if (!LockedLoad(document)) return kStorageFailed;
  if (!document.is<picojson::object>()) return 0;
  std::size_t taken = 0;
  std::size_t leftOut = 0;
  std::string which;
  for (std::size_t i = 0; i < sections.size(); ++i) {
    const std::size_t left = ReadBounded(document, sections[i], lists[i], limit - taken);
    taken += lists[i].size();
    if (left == 0) continue;
    leftOut += left;
    which += (which.empty() ? "" : ", ") + sections[i] + " " + std::to_string(left);
  }
  if (leftOut != 0) {
    KY_LOG(logging::kLevelWarning, L"%s: %u records left out, beyond the first %u (%S)", path_.c_str(),
           static_cast<unsigned>(leftOut), static_cast<unsigned>(limit), which.c_str());
  }
  return 0;
}

std::uint32_t CStartupItemsStorage::LoadBootTime(std::vector<BootTimeRecord>& records) {
  KY_TRACE(L"CStartupItemsStorage::LoadBootTime");
  picojson::value document;
  if (!LockedLoad(document)) {
    KY_LOG(logging::kLevelError, L"Failed load file");
    return kStorageFailed;
  }
  ReadBootTimes(document, records);
  return 0;
}

std::uint32_t UserStorageFolder(const velora::utils::CUserProfile* user, std::wstring& folder) {
  KY_TRACE(L"startup::storage::UserStorageFolder");
  if (user == nullptr) {
    KY_LOG(logging::kLevelError, L"no user: no store");
    return ERROR_NO_TOKEN;
  }
  std::wstring roaming;
  if (const std::uint32_t found = user->KnownFolder(FOLDERID_RoamingAppData, roaming); found != 0) {
    KY_LOG(logging::kLevelError, L"SHGetKnownFolderPath RoamingAppData of %s failed 0x%x", user->UserName().c_str(), found);
    return found;
  }
  std::wstring result = roaming;
  if (result.back() != L'\\') result.push_back(L'\\');
  result += kStorageFolderName;
  const int created = ::SHCreateDirectoryExW(nullptr, result.c_str(), nullptr);
  if (created != ERROR_SUCCESS && created != ERROR_ALREADY_EXISTS && created != ERROR_FILE_EXISTS) {
    KY_LOG(logging::kLevelError, L"SHCreateDirectoryEx %s failed 0x%x", result.c_str(), static_cast<unsigned>(created));
    return static_cast<std::uint32_t>(created);
  }
  folder = std::move(result);
  return 0;
}

}  // namespace startup::storage
