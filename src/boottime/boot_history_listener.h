// Keeps "boot_history.jsonl" in the settings folder: a listener of the plug-in's results that
// appends one record per measured boot, and the reader the history query uses.
//
// Threads: OnDataAnalysed runs on the plug-in's processing thread; ReadBootHistory on any.
// Writers replace the file whole (common/safe_file.h), so a reader never sees half a write.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "boottime/boot_history_file.h"
#include "lumera/boottime.h"

namespace boottime {

// Reads the file at `path`: 0 with `out` holding its newest `keep` records (and the count of
// lines skipped), 0 with `out` empty when there is no file yet, or ERROR_FILE_TOO_LARGE when
// it is over kHistoryMaxFileBytes, with `out` empty.
[[nodiscard]] std::uint32_t ReadBootHistory(const std::wstring& path, HistoryDocument& out,
                                            std::size_t keep = kHistoryKeep);

// Appends `record` to the file at `path`, keeping the newest kHistoryKeep and dropping lines
// that cannot be read (one too large a file is started afresh, logged). 0, or the write's
// code with the file untouched. The caller holds the file's lock.
[[nodiscard]] std::uint32_t AppendBootRecord(const std::wstring& path, const BootRecord& record);

class BootHistoryListener final : public IBootTimeEvents {
 public:
  // The record of the run that just ended; nullopt unless that run measured a boot.
  using RecordSource = std::function<std::optional<BootRecord>()>;
  // Appends the record; 0 or an error code (logged by the listener).
  using Appender = std::function<std::uint32_t(const BootRecord&)>;

  BootHistoryListener(RecordSource source, Appender append)
      : source_(std::move(source)), append_(std::move(append)) {}

  // A failed run (status not 0) and a reload of the same boot add nothing.
  void OnDataAnalysed(std::uint32_t status) override;

 private:
  RecordSource source_;
  Appender append_;
};

}  // namespace boottime
