#include "wine/linux_disk_busy.h"

#include <windows.h>

#include "wine/linux_proc.h"

namespace host::wine {
namespace {

constexpr std::string_view kVirtualPrefixes[] = {"loop", "ram", "zram", "dm-", "md", "sr", "fd", "nbd"};

}  // namespace

bool IsPhysicalDiskName(std::string_view name) {
  if (name.empty()) return false;
  for (const std::string_view prefix : kVirtualPrefixes) {
    if (name.substr(0, prefix.size()) == prefix) return false;
  }
  for (const char c : name) {
    const bool plain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' || c == '_';
    if (!plain) return false;
  }
  return true;
}

bool ReadLinuxDiskBusy(LinuxDiskBusy& out) {
  std::string text;
  if (!ReadLinuxFile(L"Z:\\proc\\diskstats", text, 256 * 1024)) return false;
  LinuxDiskBusy busy;
  for (const LinuxDisk& disk : ParseDiskStats(text)) {
    if (!IsPhysicalDiskName(disk.name)) continue;
    const std::wstring block = L"Z:\\sys\\block\\" + std::wstring(disk.name.begin(), disk.name.end());
    if (::GetFileAttributesW(block.c_str()) == INVALID_FILE_ATTRIBUTES) continue;
    busy.busyMs += disk.ioTicksMs;
    ++busy.disks;
  }
  if (busy.disks == 0) return false;
  out = busy;
  return true;
}

}  // namespace host::wine
