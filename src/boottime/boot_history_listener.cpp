#include "boottime/boot_history_listener.h"

#include <windows.h>

#include "common/guard.h"
#include "common/json_file.h"
#include "common/log.h"
#include "common/safe_file.h"

namespace boottime {

std::uint32_t ReadBootHistory(const std::wstring& path, HistoryDocument& out, std::size_t keep) {
  out = HistoryDocument{};
  std::string bytes;
  switch (ky::ReadFileBytes(path, bytes, kHistoryMaxFileBytes)) {
    case ky::JsonReadResult::kCannotOpen:
      return 0;
    case ky::JsonReadResult::kTooLarge:
      return ERROR_FILE_TOO_LARGE;
    default:
      out = DecodeHistory(bytes, keep);
      return 0;
  }
}

std::uint32_t AppendBootRecord(const std::wstring& path, const BootRecord& record) {
  KY_TRACE(L"boottime::AppendBootRecord");
  HistoryDocument history;
  if (ReadBootHistory(path, history) != 0) {
    KY_LOG(logging::kLevelWarning, L"boot history %s too large: started afresh", path.c_str());
  }
  if (history.skipped != 0) {
    KY_LOG(logging::kLevelWarning, L"boot history %s: %u unreadable lines dropped", path.c_str(),
           static_cast<unsigned>(history.skipped));
  }
  history.records.push_back(record);
  return ky::WriteFileWhole(path, EncodeHistory(history.records));
}

void BootHistoryListener::OnDataAnalysed(std::uint32_t status) {
  KY_TRACE(L"boottime::BootHistoryListener::OnDataAnalysed");
  ky::GuardedVoid(L"boottime::BootHistoryListener::OnDataAnalysed", [&] {
    if (status != kStatusAvailable || !source_) return;
    const std::optional<BootRecord> record = source_();
    if (!record) return;
    if (const std::uint32_t appended = append_(*record); appended != 0) {
      KY_LOG(logging::kLevelError, L"boot history not written 0x%x", appended);
    } else {
      KY_LOG(logging::kLevelInfo, L"boot history: boot of %u ms added", record->bootTime);
    }
  });
}

}  // namespace boottime
