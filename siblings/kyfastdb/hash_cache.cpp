#include "hash_cache.h"

#include <aclapi.h>
#include <sddl.h>
#include <shlobj.h>

#include <cstring>
#include <vector>

#include "common/service_folder.h"
#include "common/unique_handle.h"
#include "lumera/kyfastdb.h"
#include "lumera_dev/console_session.h"

namespace kyfastdb {
namespace {

constexpr char kHeader[8] = {'K', 'Y', 'F', 'D', 'B', 'C', '0', '1'};
constexpr std::uint32_t kRecordMagic = 0x31434552;  // "REC1"
constexpr std::size_t kCheckBytes = 16;
constexpr wchar_t kCacheSddl[] = L"D:P(A;;FA;;;SY)(A;;FA;;;BA)";

#pragma pack(push, 1)
struct RecordHead {
  std::uint32_t magic;
  std::uint32_t pathChars;
  std::uint64_t size;
  std::uint64_t lastWrite;
  std::uint8_t digest[32];
};
#pragma pack(pop)

// A record's own check: the leading bytes of the SHA-256 of everything before it.
bool RecordCheck(const std::uint8_t* data, std::size_t size, std::uint8_t (&check)[kCheckBytes]) {
  Digest digest{};
  if (HashBytes(data, size, digest) != 0) return false;
  std::memcpy(check, digest.data(), kCheckBytes);
  return true;
}

bool ReadBounded(HANDLE file, std::string& bytes) {
  LARGE_INTEGER size{};
  if (!::GetFileSizeEx(file, &size) || size.QuadPart < 0 || static_cast<std::uint64_t>(size.QuadPart) > kMaxCacheBytes) {
    return false;
  }
  bytes.resize(static_cast<std::size_t>(size.QuadPart));
  DWORD read = 0;
  return bytes.empty() || (::ReadFile(file, bytes.data(), static_cast<DWORD>(bytes.size()), &read, nullptr) &&
                           read == bytes.size());
}

// Readers and writers of the cache file lock it whole, shared and exclusive, so no process
// ever reads a record another is still appending.
class FileLock {
 public:
  FileLock(HANDLE file, bool exclusive) : file_(file) {
    locked_ = ::LockFileEx(file_, exclusive ? LOCKFILE_EXCLUSIVE_LOCK : 0, 0, MAXDWORD, MAXDWORD, &overlapped_) != FALSE;
  }
  ~FileLock() {
    if (locked_) ::UnlockFileEx(file_, 0, MAXDWORD, MAXDWORD, &overlapped_);
  }
  FileLock(const FileLock&) = delete;
  FileLock& operator=(const FileLock&) = delete;
  bool locked() const { return locked_; }

 private:
  HANDLE file_;
  OVERLAPPED overlapped_{};
  bool locked_ = false;
};

bool IsSid(PSID sid, WELL_KNOWN_SID_TYPE type) {
  BYTE buffer[SECURITY_MAX_SID_SIZE];
  DWORD size = sizeof(buffer);
  return ::CreateWellKnownSid(type, nullptr, buffer, &size) && ::EqualSid(sid, buffer);
}

bool IsProcessUser(PSID sid) {
  HANDLE token = nullptr;
  if (!::OpenProcessToken(::GetCurrentProcess(), TOKEN_QUERY, &token)) return false;
  ky::unique_handle owner(token);
  BYTE buffer[sizeof(TOKEN_USER) + SECURITY_MAX_SID_SIZE];
  DWORD size = 0;
  if (!::GetTokenInformation(token, TokenUser, buffer, sizeof(buffer), &size)) return false;
  return ::EqualSid(sid, reinterpret_cast<TOKEN_USER*>(buffer)->User.Sid) != FALSE;
}

// Wine keeps no DACL of its own on files and reports every file as granted to SYSTEM and the
// Unix user it runs as; that user is then accepted as an administrator would be.
bool MayHoldCache(PSID sid) {
  if (IsSid(sid, WinLocalSystemSid) || IsSid(sid, WinBuiltinAdministratorsSid)) return true;
  static const bool underWine = lumera::dev::RunningUnderWine();
  return underWine && IsProcessUser(sid);
}

}  // namespace

bool RestrictedToAdministrators(HANDLE file) {
  PACL dacl = nullptr;
  PSECURITY_DESCRIPTOR descriptor = nullptr;
  if (::GetSecurityInfo(file, SE_FILE_OBJECT, DACL_SECURITY_INFORMATION, nullptr, nullptr, &dacl, nullptr,
                        &descriptor) != ERROR_SUCCESS) {
    return false;
  }
  ky::unique_local owner(descriptor);
  if (dacl == nullptr) return false;  // a null DACL grants everyone everything
  for (DWORD i = 0; i < dacl->AceCount; ++i) {
    void* ace = nullptr;
    if (!::GetAce(dacl, i, &ace)) return false;
    const auto* header = static_cast<ACE_HEADER*>(ace);
    if (header->AceType != ACCESS_ALLOWED_ACE_TYPE) continue;
    PSID sid = &static_cast<ACCESS_ALLOWED_ACE*>(ace)->SidStart;
    if (!MayHoldCache(sid)) return false;
  }
  return true;
}

std::wstring DefaultCacheFile(const std::wstring& libraryFolder) {
  wchar_t programData[MAX_PATH] = {};
  if (SUCCEEDED(::SHGetFolderPathW(nullptr, CSIDL_COMMON_APPDATA, nullptr, 0, programData))) {
    // Made as the service even when the caller impersonates: a user who owned the folder
    // could swap the cache file that every later caller trusts.
    std::wstring folder = programData;
    bool made = true;
    for (const wchar_t* level : {L"\\Nexalon", L"\\Lumera"}) {
      folder += level;
      ky::FolderResult result;
      made = made && ky::EnsureServiceFolder(folder, result) == 0;
    }
    if (made) return folder + L"\\" + kCacheFileName;
  }
  return libraryFolder + kCacheFileName;
}

bool HashCache::Find(const std::wstring& key, const FileStamp& stamp, Digest& digest) {
  LoadOnce();
  ::AcquireSRWLockShared(&lock_);
  auto it = entries_.find(key);
  const bool found = it != entries_.end() && it->second.stamp.size == stamp.size &&
                     it->second.stamp.lastWrite == stamp.lastWrite;
  if (found) digest = it->second.digest;
  ::ReleaseSRWLockShared(&lock_);
  return found;
}

void HashCache::LoadOnce() {
  if (loaded_.load(std::memory_order_acquire)) return;
  ::AcquireSRWLockExclusive(&lock_);
  if (!loaded_.load(std::memory_order_relaxed)) {
    ky::unique_file file(::CreateFileW(file_.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                       nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
    if (file.valid()) {
      std::string bytes;
      bool trusted = false;
      {
        FileLock shared(file.get(), false);
        trusted = shared.locked() && RestrictedToAdministrators(file.get()) && ReadBounded(file.get(), bytes) &&
                  Parse(bytes);
      }
      file.reset();
      if (!trusted) Discard();
    }
    loaded_.store(true, std::memory_order_release);
  }
  ::ReleaseSRWLockExclusive(&lock_);
}

bool HashCache::Parse(const std::string& bytes) {
  if (bytes.size() < sizeof(kHeader) || std::memcmp(bytes.data(), kHeader, sizeof(kHeader)) != 0) return false;
  std::unordered_map<std::wstring, Entry> entries;
  const auto* data = reinterpret_cast<const std::uint8_t*>(bytes.data());
  std::size_t at = sizeof(kHeader);
  while (at < bytes.size()) {
    if (bytes.size() - at < sizeof(RecordHead)) return false;
    RecordHead head;
    std::memcpy(&head, data + at, sizeof(head));
    if (head.magic != kRecordMagic || head.pathChars == 0 || head.pathChars > kMaxPathChars) return false;
    const std::size_t recordBytes = sizeof(RecordHead) + head.pathChars * sizeof(wchar_t) + kCheckBytes;
    if (bytes.size() - at < recordBytes) return false;
    std::uint8_t check[kCheckBytes];
    if (!RecordCheck(data + at, recordBytes - kCheckBytes, check) ||
        std::memcmp(check, data + at + recordBytes - kCheckBytes, kCheckBytes) != 0) {
      return false;
    }
    std::wstring key(head.pathChars, L'\0');
    std::memcpy(key.data(), data + at + sizeof(RecordHead), head.pathChars * sizeof(wchar_t));
    Entry entry;
    entry.stamp = {head.size, head.lastWrite};
    std::memcpy(entry.digest.data(), head.digest, entry.digest.size());
    entries[key] = entry;  // a later record of the same file supersedes an earlier one
    at += recordBytes;
  }
  entries_ = std::move(entries);
  fileBytes_ = bytes.size();
  return true;
}

void HashCache::Discard() {
  appendFile_.reset();
  entries_.clear();
  fileBytes_ = 0;
  ::DeleteFileW(file_.c_str());
}

void HashCache::OpenForAppend() {
  PSECURITY_DESCRIPTOR descriptor = nullptr;
  if (!::ConvertStringSecurityDescriptorToSecurityDescriptorW(kCacheSddl, SDDL_REVISION_1, &descriptor, nullptr)) return;
  ky::unique_local owner(descriptor);
  SECURITY_ATTRIBUTES attributes{sizeof(attributes), descriptor, FALSE};
  appendFile_.reset(::CreateFileW(file_.c_str(), GENERIC_READ | FILE_APPEND_DATA,
                                  FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, &attributes, OPEN_ALWAYS,
                                  FILE_ATTRIBUTE_NORMAL, nullptr));
}

void HashCache::Add(const std::wstring& key, const FileStamp& stamp, const Digest& digest) {
  if (key.empty() || key.size() > kMaxPathChars) return;
  LoadOnce();
  std::vector<std::uint8_t> record(sizeof(RecordHead) + key.size() * sizeof(wchar_t) + kCheckBytes);
  RecordHead head{kRecordMagic, static_cast<std::uint32_t>(key.size()), stamp.size, stamp.lastWrite, {}};
  std::memcpy(head.digest, digest.data(), digest.size());
  std::memcpy(record.data(), &head, sizeof(head));
  std::memcpy(record.data() + sizeof(head), key.data(), key.size() * sizeof(wchar_t));
  std::uint8_t check[kCheckBytes];
  if (!RecordCheck(record.data(), record.size() - kCheckBytes, check)) return;
  std::memcpy(record.data() + record.size() - kCheckBytes, check, kCheckBytes);

  ::AcquireSRWLockExclusive(&lock_);
  if (fileBytes_ + record.size() > kMaxCacheBytes) Discard();  // full: start over rather than grow without end
  entries_[key] = Entry{stamp, digest};

  if (!appendFile_.valid()) OpenForAppend();
  FileLock exclusive(appendFile_.get(), true);
  if (exclusive.locked()) {
    DWORD written = 0;
    bool ok = true;
    LARGE_INTEGER size{};
    if (::GetFileSizeEx(appendFile_.get(), &size) && size.QuadPart == 0) {
      ok = ::WriteFile(appendFile_.get(), kHeader, sizeof(kHeader), &written, nullptr) != FALSE;
      fileBytes_ = sizeof(kHeader);
    }
    if (ok && ::WriteFile(appendFile_.get(), record.data(), static_cast<DWORD>(record.size()), &written, nullptr)) {
      fileBytes_ += record.size();
    }
  }
  ::ReleaseSRWLockExclusive(&lock_);
}

}  // namespace kyfastdb
