// The plug-in's settings folder, which holds both boot-time result files.
#pragma once

#include <string>

#include "lumera/ky_base.h"

namespace plugin {

// The settings folder, ending in a backslash: velora under the common folder the host's
// "productinfo" gives (relative to this module's folder when relative), else
// settings/velora beside the host program. Prepared with PrepareSettingsFolder and logged.
std::wstring ResolveSettingsFolder(IPlgComponentManager* manager);

// Makes `folder` (its parent must exist) the service's own folder through
// ky::EnsureServiceFolder; a folder found with another owner or a looser access list is
// logged and set right, a failure is logged. The result files are still tried either way.
void PrepareSettingsFolder(const std::wstring& folder);

}  // namespace plugin
