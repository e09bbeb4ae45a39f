// CStartupItemsStorage: the backup record of every entry the startup actions changed, kept
// in "Storage.json". Every operation reads the whole file anew and writes it whole; nothing
// is cached. The service, startupctl.exe and StartLauncher.exe all rewrite the whole file, and
// the last writer would drop the others' records: each operation holds the store's named lock
// (storage_lock.h) across processes and sessions, and within the process takes no other lock.
// A file is replaced in one step (common/safe_file.h), so a writer killed mid-way leaves it whole.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "startup/startup_item.h"
#include "startup/storage_document.h"
#include "users/user_profile.h"

namespace startup::storage {

inline constexpr wchar_t kStorageFileName[] = L"Storage.json";
inline constexpr wchar_t kUnreadableSuffix[] = L".unreadable";
inline constexpr std::uint32_t kStorageFailed = 31;
inline constexpr wchar_t kStorageFolderName[] = L"Nexalon\\Lumera\\";
// Far beyond any store the actions write (one record per entry changed), and a bound on what a
// listing or a report reads back and checks from a file a user can write.
inline constexpr std::size_t kMaxLoadedItems = 10000;

// The folder of the user's store: the user's roaming application-data folder, read through the
// user's token, + kStorageFolderName, created with its parents. 0 with `folder` set (ending in
// a backslash); ERROR_NO_TOKEN when no user or no token is known, or the shell's error, logged,
// with `folder` untouched. Never the service's own folder: a service's roaming folder is the
// system profile's.
[[nodiscard]] std::uint32_t UserStorageFolder(const velora::utils::CUserProfile* user, std::wstring& folder);

class CStartupItemsStorage {
 public:
  // The process-wide store, created on first use.
  static CStartupItemsStorage& Instance();

  CStartupItemsStorage() = default;
  CStartupItemsStorage(const CStartupItemsStorage&) = delete;
  CStartupItemsStorage& operator=(const CStartupItemsStorage&) = delete;

  // Sets the file all later operations use, replacing any earlier one.
  void Init(const std::wstring& path);
  const std::wstring& Path() const { return path_; }

  // Every operation fails with 31, logged, and changes nothing when the store's lock is not
  // taken within kStoreLockWaitMs.
  // Appends the items under the section; 0, or 31 when the file could not be written. A file
  // that cannot be read first (or whose parts of the wrong type the save would replace) is
  // copied to "<file>.unreadable", replacing an earlier copy, and then replaced by one holding
  // these items; 31, and nothing written, when that copy cannot be made.
  [[nodiscard]] std::uint32_t SaveStartupItems(const StartupItemList& items, const std::string& section);
  [[nodiscard]] std::uint32_t SaveStartupItem(const StartupItemPtr& item, const std::string& section);
  // Removes every element whose location and name match an item; 0 also when the list is
  // empty or the file cannot be read (then nothing is written), 31 when writing failed.
  [[nodiscard]] std::uint32_t RemoveStartupItems(const StartupItemList& items, const std::string& section);
  // Appends the section's items, the user's before the machine's, at most `limit` of them: the
  // rest are left out with one line logged saying how many. 0 when the file was read, 31
  // otherwise.
  [[nodiscard]] std::uint32_t LoadStartupItems(const std::string& section, StartupItemList& items,
                                               std::size_t limit = kMaxLoadedItems);
  // The items of every section from one reading of the file, one list per section in `lists`,
  // at most `limit` in all, taken section by section in the order given as LoadStartupItems
  // takes them; one line logged says how many were left out and from which sections. 0 when
  // the file was read, 31 otherwise; `lists` holds empty lists on failure.
  [[nodiscard]] std::uint32_t LoadSections(const std::vector<std::string>& sections, std::vector<StartupItemList>& lists,
                                           std::size_t limit = kMaxLoadedItems);
  // Appends the "boot_time" records; 0 when the file was read, 31 otherwise.
  [[nodiscard]] std::uint32_t LoadBootTime(std::vector<BootTimeRecord>& records);

 private:
  enum class Loaded { kYes, kMissing, kUnreadable };
  Loaded Read(picojson::value& document) const;
  bool Load(picojson::value& document) const { return Read(document) == Loaded::kYes; }
  // Appends the section's items (at most `limit`); returns how many were left out.
  static std::size_t ReadBounded(const picojson::value& document, const std::string& section, StartupItemList& items,
                                 std::size_t limit);
  // Load under the store's lock, for the operations that only read.
  bool LockedLoad(picojson::value& document) const;
  // Copies the file beside itself before it is replaced; false, logged, when it cannot.
  bool KeepUnreadable() const;
  bool Save(const picojson::value& document) const;

  std::wstring path_;
  std::uint8_t notLoaded_ = 1;  // set when the file could not be opened at Init; kept, never read
};

}  // namespace startup::storage
