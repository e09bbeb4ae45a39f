#include "delayed_start.h"

#include <objbase.h>
#include <shellapi.h>

#include <algorithm>
#include <cwchar>

#include "common/com_ptr.h"
#include "common/log.h"
#include "common/unique_handle.h"
#include "logon_marker.h"
#include "startup/action_exec.h"
#include "startup/startup_items.h"
#include "startup/startup_storage.h"
#include "startup/store_apps_actions.h"
#include "startup/store_apps_enumerator.h"
#include "users/user_environment.h"
#include "users/user_profile.h"

namespace startlauncher {
namespace {

constexpr wchar_t kWaitOption[] = L"--wait-ms";
constexpr wchar_t kGapOption[] = L"--gap-ms";
// An environment block has no stated length; one beyond this is taken as ended.
constexpr std::size_t kMaxEnvironmentChars = 1 << 20;
constexpr unsigned long long kMaxOptionMs = 24ull * 60 * 60 * 1000;

struct Section {
  const char* category;
  startup::StartupSourceKind kind;
};
constexpr Section kSections[] = {{startup::kCategoryDelayed, startup::kSourceRunKey},
                                 {startup::kCategoryStartupDelayed, startup::kSourceStartupFolder},
                                 {startup::kCategoryStoreDelayed, startup::kSourceStoreApp}};

// The shell wants COM on the thread that opens a shortcut.
class ComScope {
 public:
  ComScope() : result_(::CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED | COINIT_DISABLE_OLE1DDE)) {}
  ~ComScope() {
    if (SUCCEEDED(result_)) ::CoUninitialize();
  }
  ComScope(const ComScope&) = delete;
  ComScope& operator=(const ComScope&) = delete;

 private:
  HRESULT result_;
};

bool SameEntry(const startup::StartupItem& a, const startup::StartupItem& b) {
  return a.location == b.location && a.name == b.name && a.isUser == b.isUser;
}

std::wstring WithBackslash(std::wstring folder) {
  if (!folder.empty() && folder.back() != L'\\') folder.push_back(L'\\');
  return folder;
}

// A folder entry is opened where the module put it aside, or in place where it was left there.
std::wstring FolderEntryFile(const startup::StartupItem& item) {
  return item.backupPath.empty() ? WithBackslash(item.location) + item.name : item.backupPath;
}

// Takes the environment Windows builds from the user's token for a logon as this process's own,
// so that a Run entry's command, the Path it is found on and a shortcut the shell opens all see
// the user's variables, whoever started the launcher; 0 or the error, nothing changed on failure.
std::uint32_t AdoptUserEnvironment(const velora::utils::CUserProfile& user) {
  KY_TRACE(L"startlauncher::AdoptUserEnvironment");
  velora::utils::unique_environment_block block;
  if (!::CreateEnvironmentBlock(block.put(), user.Token(), FALSE)) {
    const std::uint32_t error = ::GetLastError();
    KY_LOG(logging::kLevelError, L"CreateEnvironmentBlock failed 0x%x", error);
    return error;
  }
  const auto* text = static_cast<const wchar_t*>(block.get());
  for (std::size_t read = 0; read < kMaxEnvironmentChars && *text != L'\0';) {
    const std::wstring entry = text;
    // Entries of the form "=C:=C:\folder" are the shell's drive folders, not variables.
    const std::size_t equals = entry.find(L'=', 1);
    if (equals != std::wstring::npos) {
      (void)::SetEnvironmentVariableW(entry.substr(0, equals).c_str(), entry.c_str() + equals + 1);
    }
    read += entry.size() + 1;
    text += entry.size() + 1;
  }
  return 0;
}

// 0 with `pid` set, or the error; a Run entry's command runs as Explorer runs it at logon, as
// this user, in the environment adopted above.
std::uint32_t StartCommand(const startup::StartupItem& item, DWORD& pid) {
  std::wstring command(velora::utils::kEnvironmentTextChars, L'\0');
  const DWORD expanded = ::ExpandEnvironmentStringsW(item.path.c_str(), command.data(), static_cast<DWORD>(command.size()));
  if (expanded == 0 || expanded > command.size()) return expanded == 0 ? ::GetLastError() : ERROR_FILENAME_EXCED_RANGE;
  command.resize(expanded);
  STARTUPINFOW startup{};
  startup.cb = sizeof startup;
  PROCESS_INFORMATION process{};
  if (!::CreateProcessW(nullptr, command.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup, &process)) {
    return ::GetLastError();
  }
  const ky::unique_handle thread(process.hThread);
  const ky::unique_handle owned(process.hProcess);
  pid = process.dwProcessId;
  return 0;
}

std::uint32_t OpenFolderEntry(const std::wstring& file, DWORD& pid) {
  const ComScope com;
  SHELLEXECUTEINFOW info{};
  info.cbSize = sizeof info;
  info.fMask = SEE_MASK_NOCLOSEPROCESS | SEE_MASK_FLAG_NO_UI | SEE_MASK_NOASYNC;
  info.lpFile = file.c_str();
  info.nShow = SW_SHOWNORMAL;
  ::SetLastError(0);
  if (!::ShellExecuteExW(&info)) {
    const DWORD error = ::GetLastError();
    return error != 0 ? error : ERROR_GEN_FAILURE;
  }
  const ky::unique_handle owned(info.hProcess);
  // A document handed to a program already running has no process of its own.
  pid = info.hProcess != nullptr ? ::GetProcessId(info.hProcess) : 0;
  return 0;
}

// The system's activation manager, declared here because the SDK declares it only for Windows 8
// and later; ActivateApplication is its first method.
struct IActivationManager : IUnknown {
  virtual HRESULT STDMETHODCALLTYPE ActivateApplication(LPCWSTR appUserModelId, LPCWSTR arguments, int options,
                                                        DWORD* processId) = 0;
};
constexpr GUID kActivationManager = {0x45BA127D, 0x10A8, 0x46EA, {0x8A, 0xB7, 0x56, 0xEA, 0x90, 0x78, 0x94, 0x3C}};
constexpr GUID kIActivationManager = {0x2E941141, 0x7F97, 0x4756, {0xBA, 0x1D, 0x9D, 0xEC, 0xDE, 0x89, 0x4A, 0x3D}};
constexpr int kActivateNoOptions = 0;

// A Store task starts as the system starts it at logon: its package's application activated by
// its user model id, found again among the packages installed for the user.
std::uint32_t ActivateStoreEntry(const startup::StartupItem& item, DWORD& pid) {
  KY_TRACE(L"startlauncher::ActivateStoreEntry");
  startup::MicrosoftStoreAppsEnumerator packages(startup::SidOfLocation(item.location));
  startup::MicrosoftStoreTask task;
  if (const std::uint32_t found = packages.FindTask(item, task); found != 0) {
    KY_LOG(logging::kLevelError, L"task %s of %s not found 0x%x", item.name.c_str(), item.location.c_str(), found);
    return found;
  }
  if (task.applicationId.empty()) return ERROR_NOT_FOUND;
  const std::wstring appUserModelId = task.familyName + L"!" + task.applicationId;
  const ComScope com;
  ky::com_ptr<IActivationManager> manager;
  HRESULT result =
      ::CoCreateInstance(kActivationManager, nullptr, CLSCTX_LOCAL_SERVER, kIActivationManager, manager.put_void());
  if (FAILED(result)) {
    KY_LOG(logging::kLevelError, L"no application activation manager for %s 0x%x", appUserModelId.c_str(),
           static_cast<unsigned>(result));
    return static_cast<std::uint32_t>(result);
  }
  result = manager->ActivateApplication(appUserModelId.c_str(), nullptr, kActivateNoOptions, &pid);
  if (FAILED(result)) {
    KY_LOG(logging::kLevelError, L"ActivateApplication %s failed 0x%x", appUserModelId.c_str(), static_cast<unsigned>(result));
    return static_cast<std::uint32_t>(result);
  }
  return 0;
}

// Whether the entry is still in its delayed section, read anew.
bool StillDelayed(startup::storage::CStartupItemsStorage& store, const DelayedEntry& entry) {
  startup::StartupItemList now;
  if (store.LoadStartupItems(entry.category, now) != 0) return false;
  return std::any_of(now.begin(), now.end(), [&](const auto& item) { return SameEntry(*item, *entry.item); });
}

}  // namespace

bool ParseDelayedOptions(const std::vector<std::wstring>& args, DelayedOptions& options) {
  for (std::size_t i = 2; i < args.size(); i += 2) {
    if (i + 1 >= args.size()) return false;
    const std::wstring& text = args[i + 1];
    wchar_t* end = nullptr;
    const unsigned long long value = std::wcstoull(text.c_str(), &end, 10);
    if (text.empty() || text[0] == L'-' || end == nullptr || *end != L'\0' || value > kMaxOptionMs) return false;
    if (args[i] == kWaitOption) {
      options.waitMs = static_cast<DWORD>(value);
    } else if (args[i] == kGapOption) {
      options.gapMs = static_cast<DWORD>(value);
    } else {
      return false;
    }
  }
  return true;
}

std::vector<DelayedEntry> OldestFirst(std::vector<DelayedEntry> entries) {
  std::stable_sort(entries.begin(), entries.end(),
                   [](const DelayedEntry& a, const DelayedEntry& b) { return a.item->changedTime < b.item->changedTime; });
  return entries;
}

int RunDelayed(const DelayedOptions& options) {
  KY_TRACE(L"startlauncher::RunDelayed");
  const std::wstring logonId = ThisLogonId();
  const CLogonRunLock runLock(logonId);
  if (!runLock.Held()) {
    KY_LOG(logging::kLevelInfo, L"another launcher of logon %s is starting the delayed entries", logonId.c_str());
    return 0;
  }
  (void)WaitForBootEnd(options.waitMs);

  const startup::CStartupItems sources;
  const auto user = sources.User();
  std::wstring storeFolder;
  std::wstring localFolder;
  if (user == nullptr || startup::storage::UserStorageFolder(user.get(), storeFolder) != 0 ||
      user->KnownFolder(FOLDERID_LocalAppData, localFolder) != 0) {
    KY_LOG(logging::kLevelError, L"no console user's store: nothing started");
    return 1;
  }
  localFolder = WithBackslash(localFolder) + startup::storage::kStorageFolderName;
  (void)::SHCreateDirectoryExW(nullptr, localFolder.c_str(), nullptr);
  (void)AdoptUserEnvironment(*user);
  auto& store = startup::storage::CStartupItemsStorage::Instance();
  store.Init(storeFolder + startup::storage::kStorageFileName);

  std::vector<DelayedEntry> entries;
  for (const Section& section : kSections) {
    startup::StartupItemList items;
    if (store.LoadStartupItems(section.category, items) != 0) continue;
    for (auto& item : items) entries.push_back({section.category, section.kind, std::move(item)});
  }
  entries = OldestFirst(std::move(entries));
  KY_LOG(logging::kLevelInfo, L"%u delayed entries in %s", static_cast<unsigned>(entries.size()), store.Path().c_str());

  CLogonMarker marker(localFolder, logonId, SystemStartMs());
  const startup::StartupAppsActionExec exec;
  std::size_t started = 0;
  ULONGLONG lastStart = 0;
  for (const DelayedEntry& entry : entries) {
    const startup::StartupItem& item = *entry.item;
    const std::wstring key = EntryKey(entry.category, item);
    if (started == kMaxStartsPerRun) {
      KY_LOG(logging::kLevelInfo, L"stopped before %s: %u started in this run", item.name.c_str(), static_cast<unsigned>(started));
      break;
    }
    if (marker.Contains(key)) {
      KY_LOG(logging::kLevelInfo, L"skipped %s: already started in this logon", item.name.c_str());
      continue;
    }
    if (started > 0) {
      const ULONGLONG since = ::GetTickCount64() - lastStart;
      if (since < options.gapMs) ::Sleep(static_cast<DWORD>(options.gapMs - since));
    }
    if (!StillDelayed(store, entry)) {
      KY_LOG(logging::kLevelInfo, L"skipped %s: no longer delayed", item.name.c_str());
      continue;
    }
    startup::IStartupAppsActions* actions = exec.Find(entry.kind);
    const bool folderFileGone = entry.kind == startup::kSourceStartupFolder &&
                                ::GetFileAttributesW(FolderEntryFile(item).c_str()) == INVALID_FILE_ATTRIBUTES;
    if (folderFileGone || (actions != nullptr && actions->Check(item) != startup::kActionOk)) {
      KY_LOG(logging::kLevelInfo, L"skipped %s: target gone (%s)", item.name.c_str(), item.path.c_str());
      continue;
    }
    DWORD pid = 0;
    std::uint32_t result = 0;
    if (entry.kind == startup::kSourceRunKey) {
      result = StartCommand(item, pid);
    } else if (entry.kind == startup::kSourceStartupFolder) {
      result = OpenFolderEntry(FolderEntryFile(item), pid);
    } else {
      result = ActivateStoreEntry(item, pid);
    }
    if (result != 0) {
      KY_LOG(logging::kLevelError, L"FAILED to start %s 0x%x", item.name.c_str(), result);
      continue;
    }
    ++started;
    if (pid != 0) {
      KY_LOG(logging::kLevelInfo, L"started %s pid %u", item.name.c_str(), static_cast<unsigned>(pid));
    } else {
      KY_LOG(logging::kLevelInfo, L"started %s, the shell gave no process id", item.name.c_str());
    }
    // The gap counts from the logged start, so that two "started" lines are never closer than it.
    lastStart = ::GetTickCount64();
    (void)marker.Add(key);
  }
  KY_LOG(logging::kLevelInfo, L"done: %u started", static_cast<unsigned>(started));
  return 0;
}

}  // namespace startlauncher
