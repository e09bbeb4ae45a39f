// The test rig's two Windows flavours really differ where version checks look.
#include <gtest/gtest.h>

#include <windows.h>

#include <string>

#include "common/windows_version.h"

namespace {

TEST(WineFlavour, VersionCheckMatchesThePrefix) {
  wchar_t flavour[32] = {};
  ::GetEnvironmentVariableW(L"LUMERA_WINE_FLAVOUR", flavour, 32);
  EXPECT_EQ(ky::IsWindows8OrGreater(), std::wstring(flavour) == L"win10") << "win7 by default, win10 when asked for";
}

}  // namespace
