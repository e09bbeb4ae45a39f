#include "startup/apps_filter.h"

#include <cctype>

#include "common/json_file.h"
#include "common/log.h"
#include "common/text_convert.h"
#include "picojson.h"

namespace startup {
namespace {

constexpr std::size_t kLoggedTextChars = 1024;

// Long texts are cut in the log so one bad value cannot flood it.
std::wstring ForLog(const std::wstring& text) {
  return text.size() <= kLoggedTextChars ? text : text.substr(0, kLoggedTextChars) + L"...";
}

}  // namespace

std::wstring LowerAscii(const std::wstring& text) {
  std::wstring lower = text;
  // tolower is only defined up to 255, and changes nothing above 127 in the C locale.
  for (auto& c : lower) {
    if (c < 0x80) c = static_cast<wchar_t>(std::tolower(static_cast<int>(c)));
  }
  return lower;
}

std::wstring CAppsFilter::AgentPath() const {
  IProductInfo* info = productInfo_ ? productInfo_() : nullptr;
  if (info == nullptr) return kAgentPathNotInited;
  const wchar_t* path = info->GetItem(lumera::kItemAgentPath, L"Desktop");
  return path != nullptr ? path : L"";
}

void CAppsFilter::Init() {
  KY_TRACE(L"CAppsFilter::Init");
  paths_.clear();
  if (!dll_.Init()) {
    KY_LOG(logging::kLevelError, L"AppAgentDPDll init failed");
    return;
  }
  const std::wstring agentPath = AgentPath();
  const std::uint32_t initialised = dll_.init(agentPath.c_str());
  if (initialised != 0) {
    KY_LOG(logging::kLevelError, L"AppAgentDPDll init agent path failed, path=%s failed err=%u", agentPath.c_str(),
           initialised);
    return;
  }
  appagentdp::IAppNameList* apps = nullptr;
  const std::uint32_t listed = dll_.getApps(&apps);
  if (listed != 0 || apps == nullptr) {
    KY_LOG(logging::kLevelError, L"AppAgentDPDll GetApps err=%u", listed);
    return;
  }
  for (std::uint32_t i = 0; i < apps->Count(); ++i) {
    const wchar_t* name = apps->Name(i);
    if (name == nullptr) continue;
    appagentdp::Transaction* transaction = nullptr;
    const std::uint32_t begun = dll_.beginTransaction(name, &transaction);
    if (begun != 0) {
      KY_LOG(logging::kLevelError, L"AppAgentDPDll BeginTransaction for %s failed err=%u", name, begun);
      continue;
    }
    const wchar_t* value = nullptr;
    const std::uint32_t got = dll_.get(transaction, appagentdp::kAppPathsValue, &value);
    if (got != 0) {
      KY_LOG(logging::kLevelError, L"AppAgentDPDll get app_paths for %s failed err=%u", name, got);
    } else if (value != nullptr) {
      AddPaths(value);
    }
    (void)dll_.endTransaction(transaction);
  }
  apps->Release();
}

void CAppsFilter::AddPaths(const std::wstring& text) {
  KY_TRACE(L"CAppsFilter::AddPaths");
  if (text.empty()) return;
  picojson::value root;
  std::string error;
  if (text.size() > kMaxAppPathsChars) {
    error = "too long";
  } else {
    const std::string utf8 = ky::WideToUtf8(text);
    (void)ky::ParseJsonText(utf8.data(), utf8.data() + utf8.size(), root, error);
  }
  if (!error.empty()) {
    KY_LOG(logging::kLevelError, L"invalid json: %s", ForLog(text).c_str());
    return;
  }
  if (!root.is<picojson::array>()) {
    KY_LOG(logging::kLevelError, L"invalid json, isn't an array: %s", ForLog(text).c_str());
    return;
  }
  for (const auto& element : root.get<picojson::array>()) {
    if (element.is<std::string>()) paths_.insert(LowerAscii(ky::Utf8ToWide(element.get<std::string>())));
  }
}

bool CAppsFilter::Matches(const std::wstring& key) const {
  const std::wstring lower = LowerAscii(key);
  for (const auto& path : paths_) {
    if (lower.compare(0, path.size(), path) == 0) return true;
  }
  return false;
}

}  // namespace startup
