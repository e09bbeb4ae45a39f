// StartupAppsActionExec: the action object of each source kind, chosen once, at
// construction, by the Windows version.
#pragma once

#include <map>
#include <memory>

#include "startup/startup_item.h"

namespace startup {

class StartupAppsActionExec {
 public:
  // Asks VerifyVersionInfoW for 6.2 (Windows 8) or later.
  StartupAppsActionExec();
  // Chooses as for that answer; for tests that drive both generations on one system.
  explicit StartupAppsActionExec(bool windows8OrGreater);

  // The action object of the kind, or null when the kind has none.
  IStartupAppsActions* Find(StartupSourceKind kind) const;
  // Puts `actions` under the kind, destroying what stood there.
  void Set(StartupSourceKind kind, std::unique_ptr<IStartupAppsActions> actions);
  bool IsWindows8OrGreater() const { return windows8OrGreater_; }

  static bool DetectWindows8OrGreater();

 private:
  void Choose();

  bool windows8OrGreater_;
  std::map<StartupSourceKind, std::unique_ptr<IStartupAppsActions>> actions_;
};

}  // namespace startup
