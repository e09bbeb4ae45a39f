// "boot_history.jsonl": one compact JSON object per measured boot, newest last, the newest
// kHistoryKeep kept, every number a string of decimal digits like the module's other files.
// The codec is pure (bytes in, records out); a line it cannot read is skipped and counted,
// never fatal, so that one damaged line never costs the rest of the history.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace boottime {

inline constexpr wchar_t kBootHistoryFileName[] = L"boot_history.jsonl";
inline constexpr std::size_t kHistoryKeep = 100;
inline constexpr std::size_t kHistoryTopImpacts = 20;
inline constexpr std::size_t kHistoryMaxEntries = 200;
// Names and paths longer than this are cut when written and refused when read.
inline constexpr std::size_t kHistoryMaxText = 1024;
// A record at the limits above fits comfortably; a longer line is not one of ours.
inline constexpr std::size_t kHistoryMaxLineBytes = 512 * 1024;
inline constexpr std::size_t kHistoryMaxFileBytes = 16 * 1024 * 1024;

// What ended the boot's measurement.
enum class BootEnd : std::uint8_t {
  kWindowsEvent,     // the system's own boot event came: its time is windowsBootTime
  kQuietAfterLogon,  // every followed process had ended a minute or more after the logon
  kLogonLimit,       // nothing was left to follow when the minute after the logon ran out
  kTwoHourLimit,     // two hours since power-on
};

enum class StartupState : std::uint8_t { kEnabled, kDisabled, kDelayed };

struct HistoryImpact {
  std::wstring image;
  std::uint32_t cpuMs = 0;
  std::uint32_t bytesRead = 0;
  std::uint32_t bytesWritten = 0;
};

// A startup entry as it stood at that boot, with what its program cost then.
struct HistoryEntry {
  std::wstring name;
  std::wstring kind;  // "run", "folder" or "store"
  StartupState state = StartupState::kEnabled;
  std::optional<HistoryImpact> impact;  // none when no process of that boot ran its program
};

struct BootRecord {
  std::int64_t systemStart = 0;  // ms since 1601
  std::uint32_t bootTime = 0;    // ms since power-on
  BootEnd end = BootEnd::kQuietAfterLogon;
  std::optional<std::uint32_t> windowsBootTime;  // with kWindowsEvent
  std::uint32_t logonTime = 0;                   // tick count, 0 when nobody logged on
  std::wstring user;
  std::uint64_t cpuMs = 0;
  std::uint64_t bytesRead = 0;
  std::uint64_t bytesWritten = 0;
  // Disk usage in thousandths of a percent: whole numbers, as the module's files keep them.
  std::uint32_t diskMin = 0;
  std::uint32_t diskMax = 0;
  std::uint32_t diskAverage = 0;
  std::uint32_t processes = 0;
  std::vector<HistoryImpact> top;  // heaviest first, at most kHistoryTopImpacts
  std::vector<HistoryEntry> entries;
};

struct HistoryDocument {
  std::vector<BootRecord> records;  // oldest first, the newest `keep` of the readable lines
  std::size_t skipped = 0;          // lines that could not be read
};

// One line without its line break; nullopt when it is not a record (the reason in `error`).
[[nodiscard]] std::optional<BootRecord> DecodeBootRecord(std::string_view line, std::string& error);
// The line for `record`, without a line break; texts and lists over the bounds are cut.
std::string EncodeBootRecord(const BootRecord& record);

// Every line of `bytes`: the newest `keep` readable records and the count of the others.
HistoryDocument DecodeHistory(std::string_view bytes, std::size_t keep = kHistoryKeep);
// The file text for `records`, keeping only the newest kHistoryKeep.
std::string EncodeHistory(const std::vector<BootRecord>& records);

const char* BootEndName(BootEnd end);
const char* StartupStateName(StartupState state);

}  // namespace boottime
