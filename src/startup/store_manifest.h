// The startup tasks a package declares in its "AppxManifest.xml": a uap5 or desktop
// "windows.startupTask" extension inside the Application whose executable it starts.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace startup {

inline constexpr wchar_t kManifestFileName[] = L"AppxManifest.xml";
inline constexpr wchar_t kFoundationNamespace[] = L"http://schemas.microsoft.com/appx/manifest/foundation/windows10";
inline constexpr wchar_t kUap5Namespace[] = L"http://schemas.microsoft.com/appx/manifest/uap/windows10/5";
inline constexpr wchar_t kDesktopNamespace[] = L"http://schemas.microsoft.com/appx/manifest/desktop/windows10";
inline constexpr wchar_t kStartupTaskCategory[] = L"windows.startupTask";

struct StoreStartupTask {
  std::wstring taskId;
  std::wstring executable;  // the package folder joined with the manifest's relative path
  std::wstring displayName;
  std::wstring applicationId;  // the declaring Application's Id, which activation names
  bool enabled = false;     // the manifest's Enabled, which holds while Windows keeps no State
};

struct StoreManifest {
  std::wstring displayName;           // Properties/DisplayName
  std::wstring publisherDisplayName;  // Properties/PublisherDisplayName
  std::vector<StoreStartupTask> tasks;
};

// Reads <packageFolder>\AppxManifest.xml. 0, or the document's error code (a Windows error as
// an HRESULT, XmlLite's parse error or one of the DOM's bounds) with `manifest` untouched. A
// task without a TaskId, or whose executable is missing or leaves the package folder, is left
// out.
[[nodiscard]] std::uint32_t ReadStoreManifest(const std::wstring& packageFolder, StoreManifest& manifest);

}  // namespace startup
