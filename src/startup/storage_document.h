// The content of "Storage.json" as a JSON document: items filed under "user" or "system"
// and a section name, and the read-only "boot_time" list. No file access here.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "picojson.h"
#include "startup/startup_item.h"

namespace startup::storage {

inline constexpr char kUserKey[] = "user";
inline constexpr char kSystemKey[] = "system";
inline constexpr char kBootTimeKey[] = "boot_time";

struct BootTimeRecord {
  std::wstring path;
  std::uint32_t time = 0;
};

// The store's deliberate 8-bit text form: the low byte of each code unit on the way out,
// each byte widened with sign extension on the way in. Only ASCII survives the round trip.
std::string NarrowLow8(const std::wstring& text);
std::wstring WidenSigned(const std::string& text);

// The persisted form of one item; "ChangedTime" is `now`, whatever the item holds.
picojson::value ItemToJson(const StartupItem& item, std::int64_t now);
// False, `item` untouched, unless "Cmd", "Name" and "Path" are all strings.
[[nodiscard]] bool ItemFromJson(const picojson::value& element, StartupItem& item);

// Appends the items under "user" or "system" by their isUser flag, in order; a top level
// that is not an object is replaced by an empty one.
void AppendItems(picojson::value& document, const StartupItemList& items, const std::string& section,
                 std::int64_t now);
// False when AppendItems under `section` would replace part of `document`: a top level that
// is not an object, a group that is not an object or a section that is not an array.
[[nodiscard]] bool AppendKeepsContent(const picojson::value& document, const std::string& section);
// Removes every element of the section whose "Path" and "Name" equal those of any item.
void RemoveItems(picojson::value& document, const StartupItemList& items, const std::string& section);
// Appends the well-formed elements of group ("user" or "system") / section, with isUser set,
// the first `limit` of them; returns how many well-formed ones were left out beyond those.
std::size_t ReadSection(const picojson::value& document, const char* group, const std::string& section,
                        std::int32_t isUser, StartupItemList& items, std::size_t limit = SIZE_MAX);
// Appends one record per "boot_time" element with a string "path" and a numeric "time".
void ReadBootTimes(const picojson::value& document, std::vector<BootTimeRecord>& records);

}  // namespace startup::storage
