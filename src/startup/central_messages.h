// What the startup manager exchanges with the central component on "RemoteDispatcherPipe":
// the app entries, the app list it receives (1005) and the reports it posts (1004). Pure
// codecs, no pipe: the text in, a list or a logged refusal out.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "lumera/boottime.h"
#include "startup/startup_item.h"

namespace startup {

inline constexpr wchar_t kCentralPipeName[] = L"RemoteDispatcherPipe";
inline constexpr std::uint32_t kMsgReport = 1004;
inline constexpr std::uint32_t kMsgAppList = 1005;
inline constexpr std::uint32_t kMsgUpdateRequest = 1006;
inline constexpr std::uint32_t kCentralTimeoutMs = 5000;
inline constexpr std::uint32_t kErrorNoConnection = 31;
inline constexpr std::size_t kMaxAppListBytes = 1024 * 1024;  // one pipe message at most
inline constexpr std::size_t kMaxAppListDepth = 16;

inline constexpr std::int32_t kStatusEnabled = 0;
inline constexpr std::int32_t kStatusDisabled = 1;
inline constexpr std::int32_t kStatusDelayed = 2;

// The exact status word of a status, "enabled" for an unknown value.
const char* StatusWord(std::int32_t status);
// True, with `status` set, for "enabled", "disabled" or "delayed" exactly.
[[nodiscard]] bool StatusFromWord(const std::string& word, std::int32_t& status);

// One app: the item fields name the app, the rest is what is reported about it, with the
// startup entries that belong to it and each one's source kind.
struct StartupItemEx : StartupItem {
  std::wstring owner;
  std::wstring qid;
  std::int32_t status = kStatusEnabled;
  std::uint32_t time = 0;  // the app's boot time
  bool isStore = false;    // a Microsoft Store startup task's app; reported as "isStore"
  std::vector<std::pair<StartupItemPtr, StartupSourceKind>> items;
};

using StartupItemExPtr = std::shared_ptr<StartupItemEx>;
using AppList = std::vector<StartupItemExPtr>;

// Parses an app-list text; 0 with the apps appended, or 13 (invalid data) when the text does
// not parse or holds no "apps" array. Apps lacking a key are skipped; every refusal is logged.
[[nodiscard]] std::uint32_t BuildAppList(std::string_view text, AppList& list);

// The report of the apps, in the given order, with the three totals.
std::string BuildReportJson(const AppList& apps, std::uint32_t bootTotalTime);

// The report form for per-process boot impact.
std::string BuildImpactReportJson(const std::vector<boottime::ProcessImpact>& processes);

}  // namespace startup
