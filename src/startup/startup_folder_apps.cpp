#include "startup/startup_folder_apps.h"

#include <windows.h>
#include <objbase.h>
#include <shlobj.h>

#include <cwctype>
#include <vector>

#include "common/com_ptr.h"
#include "common/log.h"
#include "common/unique_handle.h"
#include "startup/run_key_apps.h"

namespace startup {
namespace {

constexpr std::size_t kShortcutTargetChars = 32767;
constexpr DWORD kShortcutPathFlags = 6;  // SLGP_UNCPRIORITY | SLGP_RAWPATH
const wchar_t* const kListedExtensions[] = {L".exe", L".lnk", L".bat"};

std::wstring WithBackslash(std::wstring path) {
  if (path.empty() || path.back() != L'\\') path += L'\\';
  return path;
}

bool IsListedExtension(const std::wstring& name) {
  const std::size_t dot = name.rfind(L'.');
  if (dot == std::wstring::npos) return false;
  const std::wstring extension = name.substr(dot);
  for (const wchar_t* listed : kListedExtensions) {
    if (_wcsicmp(extension.c_str(), listed) == 0) return true;
  }
  return false;
}

bool IsShortcut(const std::wstring& name) {
  const std::size_t dot = name.rfind(L'.');
  return dot != std::wstring::npos && _wcsicmp(name.c_str() + dot, L".lnk") == 0;
}

// Balances a successful CoInitialize only.
class ComScope {
 public:
  ComScope() : initialized_(SUCCEEDED(::CoInitialize(nullptr))) {}
  ~ComScope() {
    if (initialized_) ::CoUninitialize();
  }
  ComScope(const ComScope&) = delete;
  ComScope& operator=(const ComScope&) = delete;

 private:
  bool initialized_;
};

}  // namespace

std::uint32_t ResolveShortcutTarget(const std::wstring& shortcut, std::wstring& target) {
  ky::com_ptr<IShellLinkW> link;
  HRESULT hr = ::CoCreateInstance(CLSID_ShellLink, nullptr, CLSCTX_INPROC_SERVER, IID_IShellLinkW, link.put_void());
  if (FAILED(hr)) return static_cast<std::uint32_t>(hr);
  ky::com_ptr<IPersistFile> file;
  hr = link.query(IID_IPersistFile, file);
  if (FAILED(hr)) return static_cast<std::uint32_t>(hr);
  hr = file->Load(shortcut.c_str(), STGM_READ);
  if (FAILED(hr)) return static_cast<std::uint32_t>(hr);
  std::vector<wchar_t> buffer(kShortcutTargetChars, L'\0');
  hr = link->GetPath(buffer.data(), static_cast<int>(buffer.size()), nullptr, kShortcutPathFlags);
  // S_FALSE: the shortcut has no file-system target.
  if (hr != S_OK) return static_cast<std::uint32_t>(FAILED(hr) ? hr : E_FAIL);
  buffer.back() = L'\0';
  target = buffer.data();
  return 0;
}

std::uint32_t CStartupFolderEnumerator::GetStartupApps(const std::wstring& path, StartupItemList& items) {
  KY_TRACE(L"CStartupFolderEnumerator::GetStartupApps");
  ComScope com;
  const DWORD attributes = ::GetFileAttributesW(path.c_str());
  if (attributes == INVALID_FILE_ATTRIBUTES || (attributes & FILE_ATTRIBUTE_DIRECTORY) == 0) return kActionFailed;
  const std::wstring folder = WithBackslash(path);
  WIN32_FIND_DATAW found{};
  ky::unique_find search(::FindFirstFileW((folder + L"*.*").c_str(), &found));
  if (!search) return 0;
  do {
    const std::wstring name = found.cFileName;
    if (!IsListedExtension(name)) continue;
    const std::wstring full = folder + name;
    std::wstring command = full;
    if (IsShortcut(name) && ResolveShortcutTarget(full, command) != 0) continue;
    auto item = std::make_shared<StartupItem>();
    item->name = name;
    item->location = folder;
    item->path = command;
    item->isUser = isUser_;
    KY_LOG(logging::kLevelDebug, L"%s %s %s %s", name.c_str(), command.c_str(), folder.c_str(),
           isUser_ ? L"user" : L"system");
    items.push_back(std::move(item));
  } while (::FindNextFileW(search.get(), &found));
  return 0;
}

std::uint32_t MoveStartupFile(const std::wstring& source, const std::wstring& destination) {
  if (source.empty() || destination.empty()) return kActionFailed;
  const DWORD attributes = ::GetFileAttributesW(source.c_str());
  if (attributes == INVALID_FILE_ATTRIBUTES) return kActionFailed;
  if ((attributes & FILE_ATTRIBUTE_READONLY) != 0 &&
      !::SetFileAttributesW(source.c_str(), attributes & ~FILE_ATTRIBUTE_READONLY)) {
    return kActionFailed;
  }
  return ::MoveFileExW(source.c_str(), destination.c_str(), MOVEFILE_REPLACE_EXISTING) ? 0 : kActionFailed;
}

std::wstring CStartupFolderActions::BackupFolderOf(const StartupItem& item) const {
  return WithBackslash(item.location) + backupFolderName_ + L"\\";
}

bool CStartupFolderActions::CreateBackupFolderForStartupItem(const StartupItem& item) const {
  const std::wstring folder = BackupFolderOf(item);
  const DWORD attributes = ::GetFileAttributesW(folder.c_str());
  if (attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0) {
    if ((attributes & FILE_ATTRIBUTE_READONLY) == 0) return true;
    return ::SetFileAttributesW(folder.c_str(), attributes & ~FILE_ATTRIBUTE_READONLY) != FALSE;
  }
  if (!::CreateDirectoryW(folder.c_str(), nullptr)) return false;
  (void)::SetFileAttributesW(folder.c_str(), FILE_ATTRIBUTE_HIDDEN);
  return true;
}

CStartupAppsActions::Undo CStartupFolderActions::TakeOut(StartupItem& item, const wchar_t*& failure) {
  if (!CreateBackupFolderForStartupItem(item)) {
    failure = L"FAILED CreateBackupFolderForStartupItem %s";
    return {};
  }
  const std::wstring source = WithBackslash(item.location) + item.name;
  const std::wstring destination = BackupFolderOf(item) + item.name;
  if (MoveStartupFile(source, destination) != 0) {
    failure = nullptr;
    return {};
  }
  const StartupItem before = item;
  item.backupPath = destination;
  // A shortcut's path names its target, which has not moved.
  if (source.find(L".lnk") == std::wstring::npos) item.path = destination;
  return [&item, before, source, destination] {
    (void)MoveStartupFile(destination, source);
    item = before;
  };
}

bool CStartupFolderActions::PutBack(StartupItem& item, const wchar_t* function) {
  if (!item.Actionable()) return true;
  const std::wstring source = BackupFolderOf(item) + item.name;
  const std::wstring destination = WithBackslash(item.location) + item.name;
  if (MoveStartupFile(source, destination) != 0) {
    logging::Write(logging::kLevelError, function, L"FAILED MoveFile(%s, %s)", source.c_str(), destination.c_str());
    return false;
  }
  item.backupPath.clear();
  if (destination.find(L".lnk") == std::wstring::npos) item.path = destination;
  return true;
}

std::uint8_t CStartupFolderActions::Check(const StartupItem& item) {
  KY_TRACE(L"CStartupFolderActions::Check");
  return CheckCommandTarget(item);
}

}  // namespace startup
