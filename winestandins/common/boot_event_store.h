// The store of the stand-in event channel "Microsoft-Windows-Diagnostics-Performance/
// Operational" inside a Wine prefix: one JSON object per line, oldest first, in
//   <the machine's ProgramData>\WineStandIns\DiagnosticsPerformance.jsonl
// (or the file that the environment variable WINESTANDINS_EVENT_STORE names, for tests),
//   {"id":"1","created":"<file time>","BootTime":"<ms>","MainPathBootTime":"<ms>","BootPostBootTime":"<ms>"}
// Written by diagperf.exe, read by the stand-in wevtapi.dll; after each append the writer
// sets the named event kWrittenEventName so that subscribers look again at once.
#pragma once

#include <windows.h>

#include <cstdint>
#include <string>
#include <vector>

namespace winestandins {

inline constexpr wchar_t kStoreOverride[] = L"WINESTANDINS_EVENT_STORE";
inline constexpr wchar_t kWrittenEventName[] = L"Global\\WineStandIns.DiagnosticsPerformance.Written";
inline constexpr std::size_t kMaxStoreBytes = 4 * 1024 * 1024;
inline constexpr std::size_t kMaxLineBytes = 4096;

struct BootEventRecord {
  std::uint64_t id = 0;
  std::uint64_t created = 0;  // file time (UTC)
  std::uint32_t bootTime = 0;
  std::uint32_t mainPathBootTime = 0;
  std::uint32_t postBootTime = 0;
};

// The store's path: the override when set, else the machine's ProgramData folder (the
// ProfileList value, else the system drive's), the same for services and console programs;
// empty when neither can be found.
[[nodiscard]] std::wstring BootEventStorePath();

// Every well-formed record of the store, oldest first; lines that cannot be parsed, and
// anything beyond kMaxStoreBytes, are skipped. A missing store is an empty one (true);
// false only when it exists and cannot be read.
[[nodiscard]] bool ReadBootEvents(const std::wstring& path, std::vector<BootEventRecord>& out);

// The record as one line (without the line end), and back; false for a malformed line.
[[nodiscard]] std::string FormatBootEvent(const BootEventRecord& record);
[[nodiscard]] bool ParseBootEvent(const std::string& line, BootEventRecord& out);

// Appends `record` with the next id (written back into it), creating the folder and the
// file as needed, then sets the written event. Returns 0 or the failing call's code.
[[nodiscard]] DWORD AppendBootEvent(const std::wstring& path, BootEventRecord& record);

}  // namespace winestandins
