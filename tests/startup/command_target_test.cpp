// The target file of a startup command line.
#include <gtest/gtest.h>

#include <shlwapi.h>

#include "startup/application.h"
#include "startup/command_target.h"
#include "startup/run_key_apps.h"
#include "startup/target_memo.h"
#include "support/captured_log.h"
#include "support/scratch_folder.h"

namespace {

using startup::ResolveCommandTarget;

// Commands read in the machine's environment, as a machine entry's are.
const velora::utils::CEnvironment& Machine() {
  static const auto machine = velora::utils::CEnvironment::Machine();
  return *machine;
}

TEST(CommandTarget, Rundll32TargetsItsDllFoundOnThePathAndVariablesAreExpanded) {
  std::wstring target;
  ASSERT_TRUE(ResolveCommandTarget(L"rundll32.exe shell32.dll,Control_RunDLL", target, Machine()));
  EXPECT_EQ(_wcsicmp(::PathFindFileNameW(target.c_str()), L"shell32.dll"), 0) << target;
  EXPECT_NE(::GetFileAttributesW(target.c_str()), INVALID_FILE_ATTRIBUTES) << "a bare name is searched on the path";

  ASSERT_TRUE(ResolveCommandTarget(L"%windir%\\notepad.exe /p", target, Machine()));
  wchar_t windows[MAX_PATH] = {};
  ::GetWindowsDirectoryW(windows, MAX_PATH);
  EXPECT_EQ(_wcsicmp(target.c_str(), (std::wstring(windows) + L"\\notepad.exe").c_str()), 0) << target;
}

TEST(CommandTarget, UnquotedPathsWithBlanksAreJoinedAgainAndCommandsWithoutAProgramFail) {
  const std::pair<const wchar_t*, const wchar_t*> cases[] = {
      {L"rundll32.exe C:\\My Dir\\x.dll,Entry", L"C:\\My Dir\\x.dll"},
      {L"C:\\Program Files\\App\\app.exe /min", L"C:\\Program Files\\App\\app.exe"},
      {L"\"C:\\Program Files\\App\\Run Me.BAT\" -x", L"C:\\Program Files\\App\\Run Me.BAT"},
      {L"", nullptr},
      {L"C:\\tools\\script.cmd /q", nullptr},    // neither .exe nor .bat
      {L"rundll32.exe", nullptr},                // rundll32 without a DLL
      {L"no-such-program-lumera.exe", nullptr},  // not on the path
  };
  for (const auto& [command, expected] : cases) {
    std::wstring target = L"unchanged";
    EXPECT_EQ(ResolveCommandTarget(command, target, Machine()), expected != nullptr) << command;
    EXPECT_EQ(target, expected != nullptr ? expected : L"unchanged") << command;
  }
  std::wstring target;
  ASSERT_TRUE(startup::SelectCommandTarget({L"RUNDLL.EXE", L"C:\\a", L"b.dll"}, target));
  EXPECT_EQ(target, L"C:\\a b.dll") << "a DLL without a comma takes every argument";
}

// A stored command on another machine is never opened with the service's identity: it is not
// probed, counts as present (its record is kept) and says so; a local file is still probed.
TEST(CommandTarget, NetworkTargetsAreNotProbedAndCountAsPresent) {
  const std::pair<const wchar_t*, bool> paths[] = {
      {L"\\\\server\\share\\app.exe", true},       {L"//server/share/app.exe", true},
      {L"\\\\?\\UNC\\server\\share\\app.exe", true}, {L"\\\\?\\C:\\app.exe", false},
      {L"\\\\.\\pipe\\x", false},                  {L"C:\\app.exe", false},
      {L"\\", false},
  };
  for (const auto& [path, network] : paths) EXPECT_EQ(startup::IsNetworkPath(path), network) << path;

  testsupport::CapturedLog log;
  ASSERT_TRUE(log.available());
  startup::StartupItem item;
  item.name = L"Remote";
  item.location = L"HKEY_LOCAL_MACHINE\\Software\\Microsoft\\Windows\\CurrentVersion\\Run";
  item.isUser = 0;
  item.path = L"\"\\\\lumera-nowhere\\share\\remote app.exe\" /min";
  EXPECT_EQ(startup::CheckCommandTarget(item), 0) << "kept without a look";
  EXPECT_TRUE(log.contains(L"not probed")) << "the skipped probe is logged";
  item.path = L"C:\\lumera-no-such-folder\\app.exe";
  EXPECT_EQ(startup::CheckCommandTarget(item), 31) << "a missing local file is still gone";
}

// Thousands of stored records may name one program: within one listing each target is
// looked at and described once, including a target that has nothing to describe; the next
// listing looks again.
TEST(CommandTarget, AListingLooksAtAndDescribesEachTargetOnce) {
  testsupport::ScratchFolder folder;
  const std::wstring present = testsupport::WriteFileBytes(folder.file(L"present.exe"), "no version resource");
  const std::wstring missing = folder.file(L"missing.exe");
  const auto itemFor = [](const std::wstring& target, int i) {
    startup::StartupItem item;
    item.name = L"App " + std::to_wstring(i);
    item.location = L"HKEY_LOCAL_MACHINE\\Software\\Microsoft\\Windows\\CurrentVersion\\Run";
    item.path = L"\"" + target + L"\" /background";
    return item;
  };
  testsupport::CapturedLog log;
  {
    const startup::CTargetMemoScope listing;
    for (int i = 0; i < 40; ++i) {
      const std::wstring& target = i % 2 == 0 ? present : missing;
      const startup::StartupItem item = itemFor(target, i);
      EXPECT_EQ(startup::CheckCommandTarget(item), target == present ? 0 : 31) << i;
      startup::Application app;
      EXPECT_FALSE(app.Init(item, startup::kSourceRunKey, 0)) << "neither target has version texts";
    }
    EXPECT_EQ(&startup::CTargetMemoScope().Memo(), startup::CTargetMemo::Current()) << "a scope inside keeps the outer memo";
    EXPECT_EQ(startup::CTargetMemo::Current()->Probes(), 2u);
    EXPECT_EQ(startup::CTargetMemo::Current()->Descriptions(), 2u);
    EXPECT_EQ(log.count(L"FAILED get file info for " + present), 1u);
  }
  EXPECT_EQ(startup::CTargetMemo::Current(), nullptr) << "the memo ends with its listing";
  ASSERT_TRUE(::DeleteFileW(present.c_str()));
  const startup::CTargetMemoScope next;
  EXPECT_EQ(startup::CheckCommandTarget(itemFor(present, 0)), 31) << "a later listing sees the file gone";
}

}  // namespace
