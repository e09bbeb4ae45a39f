#include "startup/store_manifest.h"

#include <windows.h>

#include <cwchar>

#include "common/log.h"
#include "lumera/wxmlutil.h"

namespace startup {
namespace {

// The extension elements that may carry a startup task, each with its task element's namespace.
constexpr const wchar_t* kTaskNamespaces[] = {kUap5Namespace, kDesktopNamespace};

std::wstring Text(const wchar_t* text) { return text != nullptr ? text : L""; }

// A relative path inside the package: no drive, no root, no "..".
bool StaysInPackage(const std::wstring& relative) {
  if (relative.empty() || relative.find(L':') != std::wstring::npos) return false;
  if (relative.front() == L'\\' || relative.front() == L'/') return false;
  std::size_t start = 0;
  while (start <= relative.size()) {
    std::size_t end = relative.find_first_of(L"\\/", start);
    if (end == std::wstring::npos) end = relative.size();
    if (relative.compare(start, end - start, L"..") == 0) return false;
    start = end + 1;
  }
  return true;
}

std::wstring Joined(const std::wstring& folder, const std::wstring& relative) {
  if (folder.empty() || folder.back() == L'\\') return folder + relative;
  return folder + L"\\" + relative;
}

void AddTasksOfApplication(const TiXmlElement& application, const std::wstring& folder,
                           std::vector<StoreStartupTask>& tasks) {
  KY_TRACE(L"startup::AddTasksOfApplication");
  const TiXmlElement* extensions = application.FirstChildElementNS(kFoundationNamespace, L"Extensions");
  if (extensions == nullptr) return;
  for (const TiXmlElement* extension = extensions->FirstChildElement(); extension != nullptr;
       extension = extension->NextSiblingElement()) {
    if (std::wcscmp(extension->LocalName(), L"Extension") != 0) continue;
    if (Text(extension->Attribute(L"Category")) != kStartupTaskCategory) continue;
    for (const wchar_t* ns : kTaskNamespaces) {
      if (std::wcscmp(extension->NamespaceURI(), ns) != 0) continue;
      const TiXmlElement* declared = extension->FirstChildElementNS(ns, L"StartupTask");
      if (declared == nullptr) continue;
      StoreStartupTask task;
      task.taskId = Text(declared->Attribute(L"TaskId"));
      // An extension may name an executable of its own; otherwise the application's runs.
      std::wstring relative = Text(extension->Attribute(L"Executable"));
      if (relative.empty()) relative = Text(application.Attribute(L"Executable"));
      if (task.taskId.empty() || !StaysInPackage(relative)) {
        KY_LOG(logging::kLevelWarning, L"startup task [%s] of %s left out", task.taskId.c_str(), folder.c_str());
        continue;
      }
      task.executable = Joined(folder, relative);
      task.displayName = Text(declared->Attribute(L"DisplayName"));
      task.applicationId = Text(application.Attribute(L"Id"));
      const std::wstring enabled = Text(declared->Attribute(L"Enabled"));
      task.enabled = enabled == L"true" || enabled == L"1";
      tasks.push_back(std::move(task));
    }
  }
}

}  // namespace

std::uint32_t ReadStoreManifest(const std::wstring& packageFolder, StoreManifest& manifest) {
  KY_TRACE(L"startup::ReadStoreManifest");
  TiXmlDocument document;
  if (!document.LoadFile(Joined(packageFolder, kManifestFileName).c_str())) {
    return static_cast<std::uint32_t>(document.ErrorId());
  }
  const TiXmlElement* package = document.RootElement();
  if (package == nullptr || std::wcscmp(package->LocalName(), L"Package") != 0 ||
      std::wcscmp(package->NamespaceURI(), kFoundationNamespace) != 0) {
    return ERROR_INVALID_DATA;
  }
  StoreManifest read;
  if (const TiXmlElement* properties = package->FirstChildElementNS(kFoundationNamespace, L"Properties")) {
    if (const TiXmlElement* name = properties->FirstChildElementNS(kFoundationNamespace, L"DisplayName")) {
      read.displayName = Text(name->GetText());
    }
    if (const TiXmlElement* publisher =
            properties->FirstChildElementNS(kFoundationNamespace, L"PublisherDisplayName")) {
      read.publisherDisplayName = Text(publisher->GetText());
    }
  }
  if (const TiXmlElement* applications = package->FirstChildElementNS(kFoundationNamespace, L"Applications")) {
    for (const TiXmlElement* application = applications->FirstChildElementNS(kFoundationNamespace, L"Application");
         application != nullptr;
         application = application->NextSiblingElementNS(kFoundationNamespace, L"Application")) {
      AddTasksOfApplication(*application, packageFolder, read.tasks);
    }
  }
  manifest = std::move(read);
  return 0;
}

}  // namespace startup
