// The target file of a startup command line.
#include <gtest/gtest.h>

#include <shlwapi.h>

#include "startup/command_target.h"

namespace {

using startup::ResolveCommandTarget;
using startup::SelectCommandTarget;

TEST(CommandTarget, Rundll32TargetsItsDllFoundOnThePath) {
  std::wstring target;
  ASSERT_TRUE(ResolveCommandTarget(L"rundll32.exe shell32.dll,Control_RunDLL", target));
  EXPECT_EQ(_wcsicmp(::PathFindFileNameW(target.c_str()), L"shell32.dll"), 0) << target;
  EXPECT_NE(target.find(L'\\'), std::wstring::npos) << "a bare name is searched on the path";
  EXPECT_NE(::GetFileAttributesW(target.c_str()), INVALID_FILE_ATTRIBUTES);
}

TEST(CommandTarget, UnquotedPathsWithBlanksAreJoinedAgain) {
  std::wstring target;
  ASSERT_TRUE(ResolveCommandTarget(L"rundll32.exe C:\\My Dir\\x.dll,Entry", target));
  EXPECT_EQ(target, L"C:\\My Dir\\x.dll");
  ASSERT_TRUE(ResolveCommandTarget(L"C:\\Program Files\\App\\app.exe /min", target));
  EXPECT_EQ(target, L"C:\\Program Files\\App\\app.exe");
  ASSERT_TRUE(ResolveCommandTarget(L"\"C:\\Program Files\\App\\Run Me.BAT\" -x", target));
  EXPECT_EQ(target, L"C:\\Program Files\\App\\Run Me.BAT");
}

TEST(CommandTarget, EnvironmentVariablesAreExpanded) {
  std::wstring target;
  ASSERT_TRUE(ResolveCommandTarget(L"%windir%\\notepad.exe /p", target));
  wchar_t windows[MAX_PATH] = {};
  ::GetWindowsDirectoryW(windows, MAX_PATH);
  EXPECT_EQ(_wcsicmp(target.c_str(), (std::wstring(windows) + L"\\notepad.exe").c_str()), 0) << target;
}

TEST(CommandTarget, CommandsWithoutAProgramFail) {
  std::wstring target = L"unchanged";
  EXPECT_FALSE(ResolveCommandTarget(L"", target));
  EXPECT_FALSE(ResolveCommandTarget(L"C:\\tools\\script.cmd /q", target)) << "neither .exe nor .bat";
  EXPECT_FALSE(ResolveCommandTarget(L"rundll32.exe", target)) << "rundll32 without a DLL";
  EXPECT_FALSE(ResolveCommandTarget(L"no-such-program-lumera.exe", target)) << "not on the path";
  EXPECT_EQ(target, L"unchanged");
}

TEST(CommandTarget, Rundll32DllWithoutCommaTakesEveryArgument) {
  std::wstring target;
  ASSERT_TRUE(SelectCommandTarget({L"RUNDLL.EXE", L"C:\\a", L"b.dll"}, target));
  EXPECT_EQ(target, L"C:\\a b.dll");
  ASSERT_TRUE(SelectCommandTarget({L"rundll32.exe", L"C:\\a,", L"Entry"}, target));
  EXPECT_EQ(target, L"C:\\a");
}

}  // namespace
