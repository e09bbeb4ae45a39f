// The test rig's two Windows flavours really differ where version checks look.
#include <gtest/gtest.h>

#include <windows.h>

#include <string>

namespace {

bool IsWindows8OrGreater() {
  OSVERSIONINFOEXW info{};
  info.dwOSVersionInfoSize = sizeof info;
  info.dwMajorVersion = 6;
  info.dwMinorVersion = 2;
  info.wServicePackMajor = 0;
  DWORDLONG mask = 0;
  mask = ::VerSetConditionMask(mask, VER_MAJORVERSION, VER_GREATER_EQUAL);
  mask = ::VerSetConditionMask(mask, VER_MINORVERSION, VER_GREATER_EQUAL);
  mask = ::VerSetConditionMask(mask, VER_SERVICEPACKMAJOR, VER_GREATER_EQUAL);
  return ::VerifyVersionInfoW(&info, VER_MAJORVERSION | VER_MINORVERSION | VER_SERVICEPACKMAJOR, mask) != FALSE;
}

TEST(WineFlavour, VersionCheckMatchesThePrefix) {
  wchar_t flavour[32] = {};
  ::GetEnvironmentVariableW(L"LUMERA_WINE_FLAVOUR", flavour, 32);
  if (std::wstring(flavour) == L"win10") {
    EXPECT_TRUE(IsWindows8OrGreater());
  } else {
    EXPECT_FALSE(IsWindows8OrGreater()) << "the default prefix reports Windows 7";
  }
}

}  // namespace
