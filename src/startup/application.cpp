#include "startup/application.h"

#include <windows.h>

#include <cwctype>
#include <vector>

#include "common/log.h"
#include "common/module_library.h"
#include "common/windows_version.h"
#include "lumera/kyutils.h"
#include "startup/command_target.h"
#include "startup/file_qid.h"
#include "startup/win8_startup_item.h"

namespace startup {
namespace {

constexpr DWORD kPathChars = 32767;
constexpr wchar_t kShortcutExtension[] = L".lnk";
constexpr std::uint32_t kStoreStateUnsupported = ERROR_NOT_SUPPORTED;

bool EndsWithShortcut(const std::wstring& name) {
  constexpr std::size_t kLength = 4;
  if (name.size() < kLength) return false;
  for (std::size_t i = 0; i < kLength; ++i) {
    if (std::towlower(name[name.size() - kLength + i]) != kShortcutExtension[i]) return false;
  }
  return true;
}

}  // namespace

bool GetPathFromCmdLine(const std::wstring& commandLine, std::wstring& path) {
  KY_TRACE(L"GetPathFromCmdLine");
  if (!ResolveCommandTarget(commandLine, path)) {
    KY_LOG(logging::kLevelError, L"FAILED parse cmdline [%s]", commandLine.c_str());
    return false;
  }
  return true;
}

void ExpandPath(const wchar_t* in, std::wstring& out) {
  KY_TRACE(L"ExpandPath");
  if (in == nullptr) return;
  std::wstring text = in;
  // Neither call takes more than its buffer holds: longer text is refused before it is made.
  std::vector<wchar_t> expanded(kPathChars, L'\0');
  ::SetLastError(0);
  const DWORD chars = text.size() < kPathChars ? ::ExpandEnvironmentStringsW(in, expanded.data(), kPathChars) : 0;
  if (chars == 0 || chars >= kPathChars) {
    KY_LOG(logging::kLevelError, L"ExpandEnvironmentStrings %s failed 0x%x", in, ky::LastErrorOr(ERROR_FILENAME_EXCED_RANGE));
  } else {
    text = expanded.data();
  }
  std::vector<wchar_t> longPath(kPathChars, L'\0');
  ::SetLastError(0);
  const DWORD longChars = text.size() < kPathChars ? ::GetLongPathNameW(text.c_str(), longPath.data(), kPathChars) : 0;
  if (longChars == 0 || longChars >= kPathChars) {
    KY_LOG(logging::kLevelError, L"GetLongPathName %s failed 0x%x", text.c_str(), ky::LastErrorOr(ERROR_FILENAME_EXCED_RANGE));
    out = text;
    return;
  }
  out.assign(longPath.data(), longChars);
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
                             std::wstring& target) const {
  if (kind == kSourceStartupFolder && EndsWithShortcut(item.name)) return GetPathFromCmdLine(item.path, target);
  if (state != 0 && !ky::IsWindows8OrGreater()) {
    target = item.location;
    if (target.empty() || target.back() != L'\\') target.push_back(L'\\');
    target += item.name;
    return true;
  }
  return GetPathFromCmdLine(item.path, target);
}

bool Application::Init(const StartupItem& item, StartupSourceKind kind, std::int32_t state) {
  KY_TRACE(L"Application::Init");
  std::wstring target;
  if (!FindTarget(item, kind, state, target)) return false;
  ExpandPath(target.c_str(), path);
  ExpandPath(item.location.c_str(), location);

  ApplicationInfo info;
  if (!GetApplicationInfo(path.c_str(), info)) return false;
  description = std::move(info.description);
  company = std::move(info.company);
  product = std::move(info.product);
  isStore = kind == kSourceStoreApp;

  CFileQID& qids = qids_ != nullptr ? *qids_ : CFileQID::Instance();
  qid.clear();
  if (!qids.Get(path, qid)) KY_LOG(logging::kLevelError, L"Failed get QID for %s", path.c_str());

  disabledBySystem = false;
  if (ky::IsWindows8OrGreater()) CheckSystemState(item, kind);
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
    // No Store source is built, so the state of a Store task cannot be read.
    KY_LOG(logging::kLevelError, L"MicrosoftStoreStartupItem::IsEnabled %s %s failed 0x%x", item.location.c_str(),
           item.name.c_str(), kStoreStateUnsupported);
  }
}

}  // namespace startup
