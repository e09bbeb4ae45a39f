#include "startup/application.h"

#include <windows.h>

#include <cwctype>
#include <vector>

#include "common/log.h"
#include "common/module_library.h"
#include "common/windows_version.h"
#include "lumera/kyutils.h"
#include "startup/application_cache.h"
#include "startup/command_target.h"
#include "startup/long_path.h"
#include "startup/file_qid.h"
#include "startup/store_startup_item.h"
#include "startup/target_memo.h"
#include "startup/win8_startup_item.h"
#include "users/user_profile.h"

namespace startup {
namespace {

constexpr DWORD kPathChars = 32767;
constexpr wchar_t kShortcutExtension[] = L".lnk";

bool EndsWithShortcut(const std::wstring& name) {
  constexpr std::size_t kLength = 4;
  if (name.size() < kLength) return false;
  for (std::size_t i = 0; i < kLength; ++i) {
    if (std::towlower(name[name.size() - kLength + i]) != kShortcutExtension[i]) return false;
  }
  return true;
}

}  // namespace

bool GetPathFromCmdLine(const std::wstring& commandLine, std::wstring& path,
                        const velora::utils::CEnvironment& environment) {
  KY_TRACE(L"GetPathFromCmdLine");
  if (!ResolveCommandTarget(commandLine, path, environment)) {
    KY_LOG(logging::kLevelError, L"FAILED parse cmdline [%s]", commandLine.c_str());
    return false;
  }
  return true;
}

// Failures are logged at debug level: a Run entry's location is a registry path, so its
// long-path conversion fails on every report.
void ExpandPath(const wchar_t* in, std::wstring& out, const velora::utils::CEnvironment& environment) {
  KY_TRACE(L"ExpandPath");
  if (in == nullptr) return;
  std::wstring text = in;
  std::wstring expanded;
  if (const std::uint32_t error = environment.Expand(text, expanded); error != 0) {
    KY_LOG(logging::kLevelDebug, L"ExpandEnvironmentStrings %s failed 0x%x", in, error);
  } else {
    text = std::move(expanded);
  }
  // A Run entry's location names a registry key: only drive and UNC paths are looked up.
  std::uint32_t error = ERROR_INVALID_NAME;
  if (text.size() >= kPathChars) {
    error = ERROR_FILENAME_EXCED_RANGE;
  } else if (ky::IsAbsolutePath(text)) {
    error = LongPathName(text, out);
  }
  if (error != 0) {
    KY_LOG(logging::kLevelDebug, L"GetLongPathName %s failed 0x%x", text.c_str(), error);
    out = text;
  }
}

bool GetApplicationInfo(const wchar_t* path, ApplicationInfo& info) {
  KY_TRACE(L"GetApplicationInfo");
  if (path == nullptr) return false;
  CFileVersionInfo version;
  if (!version.Create(path)) {
    KY_LOG(logging::kLevelError, L"FAILED get file info for %s", path);
    return false;
  }
  const auto text = [](const wchar_t* value) { return std::wstring(value != nullptr ? value : L""); };
  info.company = text(version.GetCompanyName());
  info.product = text(version.GetProductName());
  info.description = text(version.GetFileDescription());
  return true;
}

bool Application::FindTarget(const StartupItem& item, StartupSourceKind kind, std::int32_t state,
                             const velora::utils::CEnvironment& environment, std::wstring& target) const {
  if (kind == kSourceStartupFolder && EndsWithShortcut(item.name)) {
    return GetPathFromCmdLine(item.path, target, environment);
  }
  if (state != 0 && !ky::IsWindows8OrGreater()) {
    target = item.location;
    if (target.empty() || target.back() != L'\\') target.push_back(L'\\');
    target += item.name;
    return true;
  }
  return GetPathFromCmdLine(item.path, target, environment);
}

bool Application::Init(const StartupItem& item, StartupSourceKind kind, std::int32_t state) {
  KY_TRACE(L"Application::Init");
  // A user's command is read in the user's environment: in a service the process's own is
  // the service account's, where %LOCALAPPDATA% and the Path lead into the system profile.
  const auto environment = EnvironmentOf(item);
  std::wstring target;
  if (!FindTarget(item, kind, state, *environment, target)) return false;
  isStore = kind == kSourceStoreApp;
  disabledBySystem = false;

  CTargetMemo* memo = CTargetMemo::Current();
  if (const TargetDescription* described = memo != nullptr ? memo->Find(target) : nullptr) {
    if (!described->found) return false;
    path = described->path;
    description = described->description;
    company = described->company;
    product = described->product;
    qid = described->qid;
    if (const std::wstring* expanded = memo->FindLocation(item.isUser != 0, item.location)) {
      location = *expanded;
    } else {
      ExpandPath(item.location.c_str(), location, *environment);
      memo->RememberLocation(item.isUser != 0, item.location, location);
    }
  } else {
    const bool found = Describe(item, target, *environment);
    if (memo != nullptr) {
      memo->Remember(target, found ? TargetDescription{true, path, description, company, product, qid}
                                   : TargetDescription{});
      if (found) memo->RememberLocation(item.isUser != 0, item.location, location);
    }
    if (!found) return false;
  }
  if (ky::IsWindows8OrGreater()) CheckSystemState(item, kind);
  return true;
}

bool Application::Describe(const StartupItem& item, const std::wstring& target,
                           const velora::utils::CEnvironment& environment) {
  // Only applications identified through the process-wide library are remembered.
  const bool remember = qids_ == nullptr;
  // One user's "%LOCALAPPDATA%\\x.exe" is not another's.
  const auto user = item.isUser != 0 ? velora::utils::CUserProfile::Current() : nullptr;
  const std::wstring cacheKey = (user ? user->Sid() + L"|" : std::wstring()) + target;
  CachedApplication known;
  if (remember && CApplicationCache::Instance().Find(cacheKey, item.location, known)) {
    path = std::move(known.path);
    location = std::move(known.location);
    description = std::move(known.description);
    company = std::move(known.company);
    product = std::move(known.product);
    qid = std::move(known.qid);
    return true;
  }
  return Build(target, item.location, environment, cacheKey, remember);
}

bool Application::Build(const std::wstring& target, const std::wstring& itemLocation,
                        const velora::utils::CEnvironment& environment, const std::wstring& cacheKey, bool remember) {
  KY_TRACE(L"Application::Build");
  ExpandPath(target.c_str(), path, environment);
  ExpandPath(itemLocation.c_str(), location, environment);
  CachedApplication entry;
  const bool stamped = remember && CApplicationCache::FileStamp(path, entry.size, entry.lastWrite);

  ApplicationInfo info;
  if (!GetApplicationInfo(path.c_str(), info)) return false;
  description = std::move(info.description);
  company = std::move(info.company);
  product = std::move(info.product);

  CFileQID& qids = qids_ != nullptr ? *qids_ : CFileQID::Instance();
  qid.clear();
  if (!qids.Get(path, qid)) {
    KY_LOG(logging::kLevelError, L"Failed get QID for %s", path.c_str());
    return true;  // not remembered, so the identity is asked for again next time
  }
  if (stamped) {
    entry.path = path;
    entry.location = location;
    entry.description = description;
    entry.company = company;
    entry.product = product;
    entry.qid = qid;
    CApplicationCache::Instance().Store(cacheKey, itemLocation, std::move(entry));
  }
  return true;
}

void Application::CheckSystemState(const StartupItem& item, StartupSourceKind kind) {
  KY_TRACE(L"Application::CheckSystemState");
  if (kind == kSourceRunKey || kind == kSourceStartupFolder) {
    HKEY root = nullptr;
    std::wstring subkey;
    if (!GetItemRegKey(item, kind, root, subkey) || root == nullptr) {
      KY_LOG(logging::kLevelError, L"Win8StartupItem::IsEnabled %s %s failed 0x%x", item.location.c_str(),
             item.name.c_str(), static_cast<unsigned>(ERROR_GEN_FAILURE));
      return;
    }
    if (!Win8StartupItem::IsEnabled(item, kind)) {
      KY_LOG(logging::kLevelInfo, L"Win8 says is disabled %s %s", item.location.c_str(), item.name.c_str());
      disabledBySystem = true;
    }
    return;
  }
  if (kind == kSourceStoreApp) {
    bool enabled = true;
    const std::uint32_t read = MicrosoftStoreStartupItem::IsEnabled(item, enabled);
    if (read != 0) {
      KY_LOG(logging::kLevelError, L"MicrosoftStoreStartupItem::IsEnabled %s %s failed 0x%x", item.location.c_str(),
             item.name.c_str(), read);
    } else if (!enabled) {
      KY_LOG(logging::kLevelInfo, L"Registry says is disabled %s %s", item.location.c_str(), item.name.c_str());
      disabledBySystem = true;
    }
  }
}

}  // namespace startup
