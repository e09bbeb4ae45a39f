// Startup entries that are files in a Startup folder: listing them, and below Windows 8
// disabling (moving the file into a hidden backup folder beside it) and enabling (moving it
// back) with a record in the store.
#pragma once

#include "startup/startup_apps_actions.h"

namespace startup {

inline constexpr wchar_t kBackupFolderName[] = L"KyBkpFolder";

class CStartupFolderEnumerator final : public IStartupAppsEnumerator {
 public:
  explicit CStartupFolderEnumerator(std::uint8_t isUser) : isUser_(isUser) {}
  // Appends the folder's ".exe", ".bat" and ".lnk" files (shortcuts whose target cannot be
  // read are left out); 0, or 31 when `path` is not a folder.
  [[nodiscard]] std::uint32_t GetStartupApps(const std::wstring& path, StartupItemList& items) override;
  StartupSourceKind GetSourceKind() const override { return kSourceStartupFolder; }
  std::uint8_t IsUser() const { return isUser_; }

 private:
  std::uint8_t isUser_;
};

class CStartupFolderActions final : public CStartupAppsActions {
 public:
  explicit CStartupFolderActions(std::wstring backupFolderName)
      : CStartupAppsActions(L"CStartupFolderActions", kCategoryStartupDisabled, kCategoryStartupDelayed,
                            L"FAILED storage::SaveStartupItem %s"),
        backupFolderName_(std::move(backupFolderName)) {}
  // 0 when the target of the item's path exists.
  [[nodiscard]] std::uint8_t Check(const StartupItem& item) override;

  // The item's folder, a backslash, the backup folder name and a backslash.
  std::wstring BackupFolderOf(const StartupItem& item) const;
  // Makes sure the backup folder exists (created hidden) and is not read-only.
  [[nodiscard]] bool CreateBackupFolderForStartupItem(const StartupItem& item) const;

 private:
  Undo TakeOut(StartupItem& item, const wchar_t*& failure) override;
  bool PutBack(StartupItem& item, const wchar_t* function) override;

  std::wstring backupFolderName_;
};

// The target path of a shortcut file; 0, or an HRESULT / error code with `target` untouched.
[[nodiscard]] std::uint32_t ResolveShortcutTarget(const std::wstring& shortcut, std::wstring& target);
// Moves a file, replacing the destination and clearing a read-only source first; 0 or 31.
[[nodiscard]] std::uint32_t MoveStartupFile(const std::wstring& source, const std::wstring& destination);

}  // namespace startup
