// The test rig's two Windows flavours really differ where version checks look.
#include <gtest/gtest.h>

#include <windows.h>

#include <string>

#include "common/windows_version.h"

namespace {

TEST(WineFlavour, VersionCheckMatchesThePrefix) {
  wchar_t flavour[32] = {};
  ::GetEnvironmentVariableW(L"LUMERA_WINE_FLAVOUR", flavour, 32);
  if (std::wstring(flavour) == L"win10") {
    EXPECT_TRUE(ky::IsWindows8OrGreater());
  } else {
    EXPECT_FALSE(ky::IsWindows8OrGreater()) << "the default prefix reports Windows 7";
  }
}

}  // namespace
