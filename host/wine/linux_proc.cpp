#include "wine/linux_proc.h"

#include <algorithm>
#include <charconv>
#include <cstdint>

#include "common/unique_handle.h"
#include "lumera_dev/read_to_end.h"

namespace host::wine {
namespace {

constexpr std::size_t kMaxDisks = 256;
constexpr std::size_t kMaxPids = 65536;

bool ParseNumber(std::string_view text, std::uint64_t& out) {
  if (text.empty()) return false;
  const auto result = std::from_chars(text.data(), text.data() + text.size(), out);
  return result.ec == std::errc() && result.ptr == text.data() + text.size();
}

// The whitespace-separated fields of `text`.
std::vector<std::string_view> Fields(std::string_view text, std::size_t limit) {
  std::vector<std::string_view> fields;
  std::size_t i = 0;
  while (i < text.size() && fields.size() < limit) {
    while (i < text.size() && (text[i] == ' ' || text[i] == '\t')) ++i;
    const std::size_t start = i;
    while (i < text.size() && text[i] != ' ' && text[i] != '\t') ++i;
    if (i > start) fields.push_back(text.substr(start, i - start));
  }
  return fields;
}

}  // namespace

bool ReadLinuxFile(const std::wstring& path, std::string& out, std::size_t limit) {
  out.clear();
  ky::unique_file file(::CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                     nullptr, OPEN_EXISTING, 0, nullptr));
  return file && lumera::dev::ReadToEnd(file.get(), limit, out);
}

bool ParseStat(std::string_view text, LinuxStat& out) {
  // The command name in parentheses may hold spaces and parentheses itself.
  const std::size_t close = text.rfind(')');
  if (close == std::string_view::npos) return false;
  // After the name: state (field 3) ... utime 14, stime 15, starttime 22.
  const std::vector<std::string_view> fields = Fields(text.substr(close + 1), 20);
  if (fields.size() < 20) return false;
  LinuxStat stat;
  if (!ParseNumber(fields[11], stat.userTicks) || !ParseNumber(fields[12], stat.systemTicks) ||
      !ParseNumber(fields[19], stat.startTicks)) {
    return false;
  }
  out = stat;
  return true;
}

bool ParseIo(std::string_view text, LinuxIo& out) {
  LinuxIo io;
  bool haveRead = false;
  bool haveWrite = false;
  bool haveReadBytes = false;
  bool haveWriteBytes = false;
  while (!text.empty()) {
    const std::size_t end = text.find('\n');
    const std::string_view line = text.substr(0, end);
    text = end == std::string_view::npos ? std::string_view() : text.substr(end + 1);
    const std::size_t colon = line.find(':');
    if (colon == std::string_view::npos) continue;
    const std::string_view key = line.substr(0, colon);
    std::string_view value = line.substr(colon + 1);
    while (!value.empty() && value.front() == ' ') value.remove_prefix(1);
    std::uint64_t number = 0;
    if (!ParseNumber(value, number)) continue;
    if (key == "rchar") {
      io.rchar = number;
      haveRead = true;
    } else if (key == "wchar") {
      io.wchar = number;
      haveWrite = true;
    } else if (key == "syscr") {
      io.syscr = number;
    } else if (key == "syscw") {
      io.syscw = number;
    } else if (key == "read_bytes") {
      io.readBytes = number;
      haveReadBytes = true;
    } else if (key == "write_bytes") {
      io.writeBytes = number;
      haveWriteBytes = true;
    }
  }
  if (!haveRead || !haveWrite) return false;
  io.hasStorage = haveReadBytes && haveWriteBytes;
  out = io;
  return true;
}

std::uint64_t ParseUptimeMs(std::string_view text) {
  const std::vector<std::string_view> fields = Fields(text.substr(0, text.find('\n')), 1);
  if (fields.empty()) return 0;
  const std::string_view figure = fields[0];
  const std::size_t dot = figure.find('.');
  std::uint64_t seconds = 0;
  if (!ParseNumber(figure.substr(0, dot), seconds) || seconds > UINT64_MAX / 1000) return 0;
  std::uint64_t ms = seconds * 1000;
  if (dot != std::string_view::npos) {
    const std::string_view fraction = figure.substr(dot + 1, 3);
    std::uint64_t digits = 0;
    if (!ParseNumber(fraction, digits)) return 0;
    for (std::size_t i = fraction.size(); i < 3; ++i) digits *= 10;
    ms += digits;
  }
  return ms;
}

std::vector<LinuxDisk> ParseDiskStats(std::string_view text) {
  std::vector<LinuxDisk> disks;
  while (!text.empty() && disks.size() < kMaxDisks) {
    const std::size_t end = text.find('\n');
    const std::string_view line = text.substr(0, end);
    text = end == std::string_view::npos ? std::string_view() : text.substr(end + 1);
    const std::vector<std::string_view> fields = Fields(line, 14);
    LinuxDisk disk;
    if (fields.size() < 13 || !ParseNumber(fields[12], disk.ioTicksMs)) continue;
    disk.name.assign(fields[2]);
    disks.push_back(std::move(disk));
  }
  return disks;
}

bool CommandLineStartsWith(std::string_view cmdline, std::string_view imageUtf8) {
  if (imageUtf8.empty() || cmdline.size() < imageUtf8.size()) return false;
  for (std::size_t i = 0; i < imageUtf8.size(); ++i) {
    char a = cmdline[i];
    char b = imageUtf8[i];
    if (a >= 'A' && a <= 'Z') a = static_cast<char>(a - 'A' + 'a');
    if (b >= 'A' && b <= 'Z') b = static_cast<char>(b - 'A' + 'a');
    if (a != b) return false;
  }
  const std::size_t end = imageUtf8.size();
  return cmdline.size() == end || cmdline[end] == '\0' || cmdline[end] == ' ';
}

std::vector<std::uint32_t> LinuxPids() {
  std::vector<std::uint32_t> pids;
  WIN32_FIND_DATAW found{};
  ky::unique_find find(::FindFirstFileExW(L"Z:\\proc\\*", FindExInfoBasic, &found, FindExSearchLimitToDirectories,
                                          nullptr, 0));
  if (!find) return pids;
  do {
    std::uint64_t pid = 0;
    bool digits = found.cFileName[0] != L'\0';
    for (const wchar_t* c = found.cFileName; *c != L'\0' && digits; ++c) {
      digits = *c >= L'0' && *c <= L'9';
      if (digits) pid = pid * 10 + static_cast<std::uint64_t>(*c - L'0');
      if (pid > 0xffffffffull) digits = false;
    }
    if (digits) pids.push_back(static_cast<std::uint32_t>(pid));
  } while (pids.size() < kMaxPids && ::FindNextFileW(find.get(), &found));
  return pids;
}

}  // namespace host::wine
