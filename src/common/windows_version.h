// The one Windows-version question the module asks.
#pragma once

namespace ky {

// Windows 8 (6.2, service pack 0) or later, asked through VerifyVersionInfoW.
bool IsWindows8OrGreater();

}  // namespace ky
