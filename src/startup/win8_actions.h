// Windows 8 and later: Run-key and Startup-folder entries stay in place and their
// StartupApproved value is toggled, with the change recorded in the store.
#pragma once

#include "startup/startup_item.h"

namespace startup {

// One procedure for both kinds; they differ in the kind and the store categories.
class CWin8AppsActions : public IStartupAppsActions {
 public:
  [[nodiscard]] std::uint8_t Disable(const StartupItemList& items, bool updateStorage) override;
  [[nodiscard]] std::uint8_t Enable(const StartupItemList& items, bool updateStorage) override;
  [[nodiscard]] std::uint8_t Delay(const StartupItemList& items, bool updateStorage) override;

 protected:
  CWin8AppsActions(StartupSourceKind kind, const char* disabledCategory, const char* delayedCategory,
                   const wchar_t* className)
      : kind_(kind), disabledCategory_(disabledCategory), delayedCategory_(delayedCategory), className_(className) {}

 private:
  std::uint8_t MarkDisabled(const StartupItemList& items, bool updateStorage, const char* category,
                            const wchar_t* function, const wchar_t* format);

  StartupSourceKind kind_;
  const char* disabledCategory_;
  const char* delayedCategory_;
  const wchar_t* className_;
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
