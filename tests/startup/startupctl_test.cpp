// startupctl.exe end to end, against the prefix's real user Run key and Startup folder.
#include <gtest/gtest.h>

#include <windows.h>
#include <shlobj.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "common/unique_handle.h"
#include "picojson.h"

namespace {

constexpr DWORD kRunTimeoutMs = 60000;
constexpr DWORD kPollMs = 20;
constexpr wchar_t kRunKey[] = L"Software\\Microsoft\\Windows\\CurrentVersion\\Run";
constexpr wchar_t kApprovedRun[] = L"Software\\Microsoft\\Windows\\CurrentVersion\\Explorer\\StartupApproved\\Run";
constexpr wchar_t kApprovedFolder[] =
    L"Software\\Microsoft\\Windows\\CurrentVersion\\Explorer\\StartupApproved\\StartupFolder";

bool Win10() {
  const char* flavour = std::getenv("LUMERA_WINE_FLAVOUR");
  return flavour != nullptr && std::string(flavour) == "win10";
}

std::wstring ToolPath() {
  wchar_t self[MAX_PATH] = {};
  ::GetModuleFileNameW(nullptr, self, MAX_PATH);
  return (std::filesystem::path(self).parent_path().parent_path() / L"startupctl.exe").wstring();
}

std::wstring SpecialFolder(int csidl) {
  wchar_t path[MAX_PATH] = {};
  ::SHGetSpecialFolderPathW(nullptr, path, csidl, FALSE);
  return path;
}

struct ToolRun {
  DWORD exitCode = 0xFFFFFFFF;
  std::string out;
};

// Runs the tool with the arguments and collects its standard output.
ToolRun RunTool(const std::wstring& arguments) {
  ToolRun run;
  SECURITY_ATTRIBUTES inherit{sizeof(inherit), nullptr, TRUE};
  ky::unique_handle readEnd, writeEnd;
  if (!::CreatePipe(readEnd.put(), writeEnd.put(), &inherit, 0)) return run;
  ::SetHandleInformation(readEnd.get(), HANDLE_FLAG_INHERIT, 0);
  STARTUPINFOW startup{};
  startup.cb = sizeof(startup);
  startup.dwFlags = STARTF_USESTDHANDLES;
  startup.hStdOutput = writeEnd.get();
  startup.hStdError = writeEnd.get();
  startup.hStdInput = ::GetStdHandle(STD_INPUT_HANDLE);
  std::wstring command = L"\"" + ToolPath() + L"\" " + arguments;
  PROCESS_INFORMATION process{};
  if (!::CreateProcessW(nullptr, command.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr, &startup, &process)) {
    return run;
  }
  ky::unique_handle processHandle(process.hProcess), threadHandle(process.hThread);
  writeEnd.reset();
  // Read until the tool exits, not until the pipe closes: a process Wine starts on the
  // tool's behalf (the desktop) may inherit its standard error and keep the pipe open.
  const ULONGLONG deadline = ::GetTickCount64() + kRunTimeoutMs;
  bool exited = false;
  while (true) {
    DWORD available = 0;
    if (::PeekNamedPipe(readEnd.get(), nullptr, 0, nullptr, &available, nullptr) && available > 0) {
      std::string chunk(available, '\0');
      DWORD read = 0;
      if (::ReadFile(readEnd.get(), chunk.data(), available, &read, nullptr)) run.out.append(chunk.data(), read);
      continue;
    }
    if (exited || ::GetTickCount64() > deadline) break;
    exited = ::WaitForSingleObject(processHandle.get(), kPollMs) == WAIT_OBJECT_0;
  }
  if (exited) ::GetExitCodeProcess(processHandle.get(), &run.exitCode);
  return run;
}

std::string Narrow(const std::wstring& text) { return std::string(text.begin(), text.end()); }

// The state the JSON listing gives the named entry; empty when it is not listed.
std::string StateOf(const std::string& name) {
  const ToolRun run = RunTool(L"list --json");
  picojson::value list;
  if (run.exitCode != 0 || !picojson::parse(list, run.out).empty() || !list.is<picojson::array>()) return "bad";
  for (const auto& entry : list.get<picojson::array>()) {
    if (entry.get("name").to_str() == name) return entry.get("state").to_str();
  }
  return "";
}

std::vector<BYTE> Approved(const wchar_t* key, const std::wstring& name) {
  std::vector<BYTE> bytes(128);
  DWORD length = static_cast<DWORD>(bytes.size());
  if (::RegGetValueW(HKEY_CURRENT_USER, key, name.c_str(), RRF_RT_REG_BINARY, nullptr, bytes.data(), &length)) return {};
  bytes.resize(length);
  return bytes;
}

class StartupCtl : public ::testing::Test {
 protected:
  void SetUp() override {
    suffix_ = std::to_wstring(::GetCurrentProcessId());
    value_ = L"LumeraCtlTest" + suffix_;
    const std::wstring command = L"%windir%\\notepad.exe /lumera";
    ASSERT_EQ(::RegSetKeyValueW(HKEY_CURRENT_USER, kRunKey, value_.c_str(), REG_EXPAND_SZ, command.c_str(),
                                static_cast<DWORD>((command.size() + 1) * 2)),
              ERROR_SUCCESS);
    startupFolder_ = SpecialFolder(CSIDL_STARTUP) + L"\\";
    std::filesystem::create_directories(std::filesystem::path(startupFolder_));
    file_ = L"lumera-ctl-" + suffix_ + L".bat";
    std::ofstream(std::filesystem::path(startupFolder_ + file_)) << "@echo off\r\n";
    storage_ = SpecialFolder(CSIDL_APPDATA) + L"\\Nexalon\\Lumera\\Storage.json";
    storageExisted_ = ::GetFileAttributesW(storage_.c_str()) != INVALID_FILE_ATTRIBUTES;
  }
  void TearDown() override {
    ::RegDeleteKeyValueW(HKEY_CURRENT_USER, kRunKey, value_.c_str());
    ::RegDeleteKeyValueW(HKEY_CURRENT_USER, kApprovedRun, value_.c_str());
    ::RegDeleteKeyValueW(HKEY_CURRENT_USER, kApprovedFolder, file_.c_str());
    ::DeleteFileW((startupFolder_ + file_).c_str());
    ::DeleteFileW((startupFolder_ + L"KyBkpFolder\\" + file_).c_str());
    if (!storageExisted_) ::DeleteFileW(storage_.c_str());
  }

  std::wstring suffix_, value_, startupFolder_, file_, storage_;
  bool storageExisted_ = false;
};

TEST_F(StartupCtl, ListsDisablesDelaysAndEnablesARunValue) {
  const ToolRun list = RunTool(L"list");
  ASSERT_EQ(list.exitCode, 0u) << list.out;
  EXPECT_NE(list.out.find(Narrow(value_) + "\trun\tuser\tenabled\t"), std::string::npos) << list.out;
  EXPECT_NE(list.out.find(Narrow(file_) + "\tfolder\tuser\tenabled\t"), std::string::npos) << list.out;

  ToolRun run = RunTool(L"disable " + value_);
  ASSERT_EQ(run.exitCode, 0u) << run.out;
  EXPECT_NE(run.out.find("enabled -> disabled"), std::string::npos) << run.out;
  EXPECT_EQ(StateOf(Narrow(value_)), "disabled");
  const DWORD present = ::RegGetValueW(HKEY_CURRENT_USER, kRunKey, value_.c_str(), RRF_RT_ANY, nullptr, nullptr, nullptr);
  if (Win10()) {
    EXPECT_EQ(present, static_cast<DWORD>(ERROR_SUCCESS)) << "the value stays in place";
    EXPECT_EQ(Approved(kApprovedRun, value_).at(0), 1);
  } else {
    EXPECT_NE(present, static_cast<DWORD>(ERROR_SUCCESS)) << "the value is deleted";
  }

  run = RunTool(L"delay " + value_);
  ASSERT_EQ(run.exitCode, 0u) << run.out;
  EXPECT_EQ(StateOf(Narrow(value_)), "delayed");

  run = RunTool(L"enable " + value_);
  ASSERT_EQ(run.exitCode, 0u) << run.out;
  EXPECT_EQ(StateOf(Narrow(value_)), "enabled");
  DWORD type = 0;
  ASSERT_EQ(::RegGetValueW(HKEY_CURRENT_USER, kRunKey, value_.c_str(), RRF_RT_ANY | RRF_NOEXPAND, &type, nullptr,
                           nullptr),
            ERROR_SUCCESS);
  EXPECT_EQ(type, Win10() ? static_cast<DWORD>(REG_EXPAND_SZ) : static_cast<DWORD>(REG_SZ));
  if (Win10()) {
    EXPECT_EQ(Approved(kApprovedRun, value_).at(0), 0);
  }
}

TEST_F(StartupCtl, DisablesAndEnablesAStartupFolderFile) {
  const std::wstring original = startupFolder_ + file_;
  const std::wstring moved = startupFolder_ + L"KyBkpFolder\\" + file_;
  ToolRun run = RunTool(L"disable " + file_ + L" --location \"" + startupFolder_.substr(0, startupFolder_.size() - 1) + L"\"");
  ASSERT_EQ(run.exitCode, 0u) << run.out;
  EXPECT_EQ(StateOf(Narrow(file_)), "disabled");
  if (Win10()) {
    EXPECT_NE(::GetFileAttributesW(original.c_str()), INVALID_FILE_ATTRIBUTES);
    EXPECT_EQ(Approved(kApprovedFolder, file_).at(0), 1);
  } else {
    EXPECT_EQ(::GetFileAttributesW(original.c_str()), INVALID_FILE_ATTRIBUTES);
    EXPECT_NE(::GetFileAttributesW(moved.c_str()), INVALID_FILE_ATTRIBUTES);
  }
  run = RunTool(L"enable " + file_);
  ASSERT_EQ(run.exitCode, 0u) << run.out;
  EXPECT_NE(::GetFileAttributesW(original.c_str()), INVALID_FILE_ATTRIBUTES);
  EXPECT_EQ(StateOf(Narrow(file_)), "enabled");
}

TEST_F(StartupCtl, FailsWithACodeForUnknownEntriesAndBadArguments) {
  EXPECT_EQ(RunTool(L"disable NoSuchEntryLumera").exitCode, static_cast<DWORD>(ERROR_NOT_FOUND));
  EXPECT_EQ(RunTool(L"disable " + value_ + L" --location HKEY_LOCAL_MACHINE\\Nowhere").exitCode,
            static_cast<DWORD>(ERROR_NOT_FOUND));
  EXPECT_EQ(RunTool(L"frobnicate").exitCode, static_cast<DWORD>(ERROR_INVALID_PARAMETER));
  EXPECT_EQ(RunTool(L"").exitCode, static_cast<DWORD>(ERROR_INVALID_PARAMETER));
  const ToolRun again = RunTool(L"enable " + value_);
  EXPECT_EQ(again.exitCode, 0u);
  EXPECT_NE(again.out.find("already enabled"), std::string::npos) << again.out;
}

}  // namespace
