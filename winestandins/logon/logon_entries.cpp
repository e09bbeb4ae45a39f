#include "logon/logon_entries.h"

#include <algorithm>
#include <cstdint>
#include <cstring>

#include "common/unique_handle.h"

namespace winestandins::logon {
namespace {

constexpr std::uint32_t kWordDisabled = 1;
constexpr std::uint32_t kWordDisabledAlt = 3;
constexpr wchar_t kDesktopIni[] = L"desktop.ini";
constexpr DWORD kMaxReadApprovedBytes = 64 * 1024;

bool SameText(const std::wstring& a, const wchar_t* b) {
  return ::CompareStringOrdinal(a.c_str(), static_cast<int>(a.size()), b, -1, TRUE) == CSTR_EQUAL;
}

std::wstring Approved(const wchar_t* leaf) { return std::wstring(kApprovedSubkey) + L"\\" + leaf; }

void CollectRunValues(const LogonSource& source, std::vector<LogonEntry>& entries) {
  ky::unique_hkey key;
  if (::RegOpenKeyExW(source.run.root, source.run.subkey.c_str(), 0, KEY_QUERY_VALUE, key.put()) != ERROR_SUCCESS) {
    return;
  }
  DWORD longestName = 0;
  DWORD longestData = 0;
  if (::RegQueryInfoKeyW(key.get(), nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, &longestName,
                         &longestData, nullptr, nullptr) != ERROR_SUCCESS) {
    return;
  }
  std::vector<wchar_t> name(static_cast<std::size_t>(longestName) + 1, L'\0');
  // Room for a terminator the stored data may lack.
  std::vector<BYTE> data(static_cast<std::size_t>(longestData) + 2 * sizeof(wchar_t), 0);
  for (DWORD index = 0;; ++index) {
    DWORD nameChars = longestName + 1;
    DWORD bytes = longestData;
    DWORD type = REG_NONE;
    std::fill(data.begin(), data.end(), BYTE{0});
    const LSTATUS status = ::RegEnumValueW(key.get(), index, name.data(), &nameChars, nullptr, &type, data.data(), &bytes);
    if (status == ERROR_NO_MORE_ITEMS || (status != ERROR_SUCCESS && status != ERROR_MORE_DATA)) break;
    if (status != ERROR_SUCCESS || (type != REG_SZ && type != REG_EXPAND_SZ)) continue;
    LogonEntry entry;
    entry.kind = EntryKind::kRunValue;
    entry.name.assign(name.data(), nameChars);
    const auto* text = reinterpret_cast<const wchar_t*>(data.data());
    entry.command.assign(text, wcsnlen(text, data.size() / sizeof(wchar_t)));
    entry.expand = type == REG_EXPAND_SZ;
    entry.approval = source.approval;
    entry.source = source.run.Text();
    if (!entry.command.empty()) entries.push_back(std::move(entry));
  }
}

void CollectFiles(const LogonSource& source, std::vector<LogonEntry>& entries) {
  if (source.folder.empty()) return;
  WIN32_FIND_DATAW found{};
  ky::unique_find find(::FindFirstFileW((source.folder + L"\\*").c_str(), &found));
  if (!find) return;
  std::vector<std::wstring> names;
  do {
    if ((found.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0) continue;
    const std::wstring name = found.cFileName;
    if (SameText(name, kDesktopIni)) continue;
    names.push_back(name);
  } while (::FindNextFileW(find.get(), &found));
  std::sort(names.begin(), names.end());
  for (const std::wstring& name : names) {
    LogonEntry entry;
    entry.kind = EntryKind::kStartupFile;
    entry.name = name;
    entry.command = source.folder + L"\\" + name;
    entry.approval = source.approval;
    entry.source = source.folder;
    entries.push_back(std::move(entry));
  }
}

}  // namespace

std::wstring RegistryPlace::Text() const {
  const wchar_t* rootName = root == HKEY_LOCAL_MACHINE ? L"HKLM"
                            : root == HKEY_USERS       ? L"HKEY_USERS"
                            : root == HKEY_CURRENT_USER ? L"HKCU"
                                                        : L"HKEY";
  return subkey.empty() ? std::wstring(rootName) : std::wstring(rootName) + L"\\" + subkey;
}

std::vector<LogonSource> LogonSources(const std::wstring& sid, const std::wstring& commonStartup,
                                      const std::wstring& userStartup) {
  const std::wstring user = sid + L"\\";
  std::vector<LogonSource> sources(5);
  const auto runKey = [&](LogonSource& source, HKEY root, const std::wstring& run, const std::wstring& approval) {
    source.kind = EntryKind::kRunValue;
    source.run.root = root;
    source.run.subkey = run;
    source.approval.root = root;
    source.approval.subkey = approval;
  };
  const auto folder = [&](LogonSource& source, const std::wstring& path, HKEY root, const std::wstring& approval) {
    source.kind = EntryKind::kStartupFile;
    source.folder = path;
    source.approval.root = root;
    source.approval.subkey = approval;
  };
  runKey(sources[0], HKEY_LOCAL_MACHINE, kRunSubkey, Approved(kApprovedRun));
  runKey(sources[1], HKEY_LOCAL_MACHINE, kRunWowSubkey, Approved(kApprovedRun32));
  runKey(sources[2], HKEY_USERS, user + kRunSubkey, user + Approved(kApprovedRun));
  folder(sources[3], commonStartup, HKEY_LOCAL_MACHINE, Approved(kApprovedStartupFolder));
  folder(sources[4], userStartup, HKEY_USERS, user + Approved(kApprovedStartupFolder));
  return sources;
}

void CollectEntries(const LogonSource& source, std::vector<LogonEntry>& entries) {
  if (source.kind == EntryKind::kRunValue) {
    CollectRunValues(source, entries);
  } else {
    CollectFiles(source, entries);
  }
}

bool ApprovalDisables(const BYTE* data, std::size_t size) {
  std::uint32_t word = 0;
  if (data == nullptr || size < sizeof word) return false;
  std::memcpy(&word, data, sizeof word);  // little-endian on every Windows target
  return word == kWordDisabled || word == kWordDisabledAlt;
}

bool DisabledByApproval(const LogonEntry& entry) {
  std::vector<BYTE> data(kMaxApprovedBytes);
  DWORD size = static_cast<DWORD>(data.size());
  LSTATUS status = ::RegGetValueW(entry.approval.root, entry.approval.subkey.c_str(), entry.name.c_str(), RRF_RT_ANY,
                                  nullptr, data.data(), &size);
  // Only the first word counts, however long the rest of the value is.
  if (status == ERROR_MORE_DATA && size <= kMaxReadApprovedBytes) {
    data.resize(size);
    status = ::RegGetValueW(entry.approval.root, entry.approval.subkey.c_str(), entry.name.c_str(), RRF_RT_ANY, nullptr,
                            data.data(), &size);
  }
  return status == ERROR_SUCCESS && ApprovalDisables(data.data(), size);
}

}  // namespace winestandins::logon
