#include "startup/storage_document.h"

#include <cmath>
#include <limits>
#include <set>
#include <utility>

namespace startup::storage {
namespace {

constexpr char kName[] = "Name";
constexpr char kCmd[] = "Cmd";
constexpr char kPath[] = "Path";
constexpr char kBkpPath[] = "BkpPath";
constexpr char kChangedTime[] = "ChangedTime";
constexpr char kBootPath[] = "path";
constexpr char kBootTime[] = "time";

// Absent or null members become the given empty value; anything else is left alone.
picojson::value& MemberOrEmpty(picojson::object& object, const std::string& key, const picojson::value& empty) {
  picojson::value& member = object[key];
  if (member.is<picojson::null>()) member = empty;
  return member;
}

const picojson::value* Member(const picojson::value& object, const char* key) {
  if (!object.is<picojson::object>()) return nullptr;
  const auto& members = object.get<picojson::object>();
  const auto it = members.find(key);
  return it == members.end() ? nullptr : &it->second;
}

const std::string* StringMember(const picojson::value& object, const char* key) {
  const picojson::value* member = Member(object, key);
  return member != nullptr && member->is<std::string>() ? &member->get<std::string>() : nullptr;
}

// Numbers truncated toward zero; values outside the 64-bit range give nullopt-like false.
bool IntegerMember(const picojson::value& object, const char* key, std::int64_t& out) {
  const picojson::value* member = Member(object, key);
  if (member == nullptr) return false;
  if (member->is<std::int64_t>()) {
    out = member->get<std::int64_t>();
    return true;
  }
  if (!member->is<double>()) return false;
  const double value = std::trunc(member->get<double>());
  if (!std::isfinite(value) || value < -9.2e18 || value > 9.2e18) return false;
  out = static_cast<std::int64_t>(value);
  return true;
}

bool IsItem(const picojson::value& element) {
  return StringMember(element, kCmd) != nullptr && StringMember(element, kName) != nullptr &&
         StringMember(element, kPath) != nullptr;
}

// The location and name of every item, looked up once per stored element: a removal of
// thousands of records from a store of thousands must not compare every pair.
using ItemKeys = std::set<std::pair<std::wstring, std::wstring>>;

}  // namespace

std::string NarrowLow8(const std::wstring& text) {
  std::string out(text.size(), '\0');
  for (std::size_t i = 0; i < text.size(); ++i) out[i] = static_cast<char>(text[i] & 0xFF);
  return out;
}

std::wstring WidenSigned(const std::string& text) {
  std::wstring out(text.size(), L'\0');
  for (std::size_t i = 0; i < text.size(); ++i) {
    out[i] = static_cast<wchar_t>(static_cast<std::int16_t>(static_cast<signed char>(text[i])));
  }
  return out;
}

picojson::value ItemToJson(const StartupItem& item, std::int64_t now) {
  picojson::object object;
  object[kName] = picojson::value(NarrowLow8(item.name));
  object[kCmd] = picojson::value(NarrowLow8(item.path));
  object[kPath] = picojson::value(NarrowLow8(item.location));
  object[kBkpPath] = picojson::value(NarrowLow8(item.backupPath));
  object[kChangedTime] = picojson::value(now);
  return picojson::value(std::move(object));
}

bool ItemFromJson(const picojson::value& element, StartupItem& item) {
  const std::string* cmd = StringMember(element, kCmd);
  const std::string* name = StringMember(element, kName);
  const std::string* path = StringMember(element, kPath);
  if (cmd == nullptr || name == nullptr || path == nullptr) return false;
  item.path = WidenSigned(*cmd);
  item.name = WidenSigned(*name);
  item.location = WidenSigned(*path);
  if (const std::string* backup = StringMember(element, kBkpPath)) item.backupPath = WidenSigned(*backup);
  std::int64_t changed = 0;
  if (IntegerMember(element, kChangedTime, changed)) item.changedTime = changed;
  return true;
}

void AppendItems(picojson::value& document, const StartupItemList& items, const std::string& section,
                 std::int64_t now) {
  if (!document.is<picojson::object>()) document = picojson::value(picojson::object());
  for (const bool user : {true, false}) {
    picojson::array* list = nullptr;
    for (const StartupItemPtr& item : items) {
      if (!item || (item->isUser != 0) != user) continue;
      if (list == nullptr) {
        auto& top = document.get<picojson::object>();
        picojson::value& group = MemberOrEmpty(top, user ? kUserKey : kSystemKey, picojson::value(picojson::object()));
        if (!group.is<picojson::object>()) group = picojson::value(picojson::object());
        picojson::value& array = MemberOrEmpty(group.get<picojson::object>(), section, picojson::value(picojson::array()));
        if (!array.is<picojson::array>()) array = picojson::value(picojson::array());
        list = &array.get<picojson::array>();
      }
      list->push_back(ItemToJson(*item, now));
    }
  }
}

bool AppendKeepsContent(const picojson::value& document, const std::string& section) {
  if (!document.is<picojson::object>()) return false;
  for (const char* key : {kUserKey, kSystemKey}) {
    const picojson::value* group = Member(document, key);
    if (group == nullptr || group->is<picojson::null>()) continue;
    if (!group->is<picojson::object>()) return false;
    const picojson::value* list = Member(*group, section.c_str());
    if (list != nullptr && !list->is<picojson::null>() && !list->is<picojson::array>()) return false;
  }
  return true;
}

void RemoveItems(picojson::value& document, const StartupItemList& items, const std::string& section) {
  if (!document.is<picojson::object>()) return;
  for (const bool user : {true, false}) {
    ItemKeys group;
    for (const StartupItemPtr& item : items) {
      if (item && (item->isUser != 0) == user) group.emplace(item->location, item->name);
    }
    if (group.empty()) continue;
    auto& top = document.get<picojson::object>();
    picojson::value& groupValue = MemberOrEmpty(top, user ? kUserKey : kSystemKey, picojson::value(picojson::object()));
    if (!groupValue.is<picojson::object>()) continue;
    picojson::value& array =
        MemberOrEmpty(groupValue.get<picojson::object>(), section, picojson::value(picojson::array()));
    if (!array.is<picojson::array>()) continue;
    auto& elements = array.get<picojson::array>();
    std::erase_if(elements, [&group](const picojson::value& element) {
      StartupItem stored;
      return ItemFromJson(element, stored) && group.count({stored.location, stored.name}) != 0;
    });
  }
}

std::size_t ReadSection(const picojson::value& document, const char* group, const std::string& section,
                        std::int32_t isUser, StartupItemList& items, std::size_t limit) {
  const picojson::value* groupValue = Member(document, group);
  if (groupValue == nullptr) return 0;
  const picojson::value* array = Member(*groupValue, section.c_str());
  if (array == nullptr || !array->is<picojson::array>()) return 0;
  std::size_t appended = 0;
  std::size_t leftOut = 0;
  for (const picojson::value& element : array->get<picojson::array>()) {
    if (appended == limit) {
      if (IsItem(element)) ++leftOut;
      continue;
    }
    auto item = std::make_shared<StartupItem>();
    if (!ItemFromJson(element, *item)) continue;
    item->isUser = isUser;
    items.push_back(std::move(item));
    ++appended;
  }
  return leftOut;
}

void ReadBootTimes(const picojson::value& document, std::vector<BootTimeRecord>& records) {
  const picojson::value* list = Member(document, kBootTimeKey);
  if (list == nullptr || !list->is<picojson::array>()) return;
  for (const picojson::value& element : list->get<picojson::array>()) {
    const std::string* path = StringMember(element, kBootPath);
    std::int64_t time = 0;
    if (path == nullptr || !IntegerMember(element, kBootTime, time)) continue;
    records.push_back({WidenSigned(*path), static_cast<std::uint32_t>(time)});
  }
}

}  // namespace startup::storage
