// Startup entries that are values under a Run key: listing them, and below Windows 8
// disabling (deleting the value) and enabling (writing it back) with a record in the store.
#pragma once

#include <windows.h>

#include "startup/startup_apps_actions.h"

namespace startup {

class CRunKeyAppsEnumerator final : public IStartupAppsEnumerator {
 public:
  CRunKeyAppsEnumerator(HKEY root, std::uint8_t isUser) : root_(root), isUser_(isUser) {}
  // Empties `items`, then lists every value of root\path; 0, 31 for a null root or empty
  // path, or the registry error of the open or query. An enumeration error ends the list
  // quietly with what was read.
  [[nodiscard]] std::uint32_t GetStartupApps(const std::wstring& path, StartupItemList& items) override;
  StartupSourceKind GetSourceKind() const override { return kSourceRunKey; }
  HKEY Root() const { return root_; }
  std::uint8_t IsUser() const { return isUser_; }

 private:
  HKEY root_;
  std::uint8_t isUser_;
};

class CRunKeyAppsActions final : public CStartupAppsActions {
 public:
  CRunKeyAppsActions() : CStartupAppsActions(L"CRunKeyAppsActions", kCategoryDisabled, kCategoryDelayed) {}
  // 0 when the command's target file exists.
  [[nodiscard]] std::uint8_t Check(const StartupItem& item) override;

 private:
  Undo TakeOut(StartupItem& item, const wchar_t*& failure) override;
  bool PutBack(StartupItem& item, const wchar_t* function) override;
};

// Deletes the value `name` from the key named by `location`; 0, 31 for a malformed location
// or unknown root, else the registry result.
[[nodiscard]] std::uint32_t DeleteRunValue(const StartupItem& item);
// Writes `path` back as the value `name`, always as REG_SZ; 0, 31 or the registry result.
[[nodiscard]] std::uint32_t RollbackToRegistry(const StartupItem& item);

// 0 when the target of the item's command, read in the item's environment, exists as a file
// or folder, 31 otherwise. 0 also when the item is a user's and no environment of the user can
// be had: what cannot be looked at is not taken for gone, so its record is kept.
// A target on another machine (\\server\share\..., \\?\UNC\...) is not looked at and gives 0.
// Within a CTargetMemoScope each target is looked at once.
[[nodiscard]] std::uint8_t CheckCommandTarget(const StartupItem& item);
// True for a path on another machine: \\server\share\... or \\?\UNC\server\share\....
[[nodiscard]] bool IsNetworkPath(const std::wstring& path);

}  // namespace startup
