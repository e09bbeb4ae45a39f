// Windows 8 and later: Run-key and Startup-folder entries stay in place and their
// StartupApproved value is toggled, with the change recorded in the store.
#pragma once

#include "startup/startup_apps_actions.h"

namespace startup {

// One procedure for both kinds; they differ in the kind and the store categories.
class CWin8AppsActions : public CStartupAppsActions {
 protected:
  CWin8AppsActions(StartupSourceKind kind, const char* disabledCategory, const char* delayedCategory,
                   const wchar_t* className)
      : CStartupAppsActions(className, disabledCategory, delayedCategory), kind_(kind) {}

 private:
  Undo TakeOut(StartupItem& item, const wchar_t*& failure) override;
  bool PutBack(StartupItem& item, const wchar_t* function) override;

  StartupSourceKind kind_;
};

class CWin8RunKeyAppsActions final : public CWin8AppsActions {
 public:
  CWin8RunKeyAppsActions();
  // 0 when the Run value still exists and the command's target file exists.
  [[nodiscard]] std::uint8_t Check(const StartupItem& item) override;
};

class CWin8StartupFolderActions final : public CWin8AppsActions {
 public:
  CWin8StartupFolderActions();
  // 0 when the target of the item's path exists.
  [[nodiscard]] std::uint8_t Check(const StartupItem& item) override;
};

}  // namespace startup
