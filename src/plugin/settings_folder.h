// The plug-in's settings folder, which holds both boot-time result files.
#pragma once

#include <string>

namespace plugin {

// Makes `folder` (its parent must exist) the service's own folder through
// ky::EnsureServiceFolder; a folder found with another owner or a looser access list is
// logged and set right, a failure is logged. The result files are still tried either way.
void PrepareSettingsFolder(const std::wstring& folder);

}  // namespace plugin
