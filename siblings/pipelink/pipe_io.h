// One end of an overlapped message-mode pipe: whole-message reads and serialised writes,
// every wait bounded and ended by a stop event.
#pragma once

#include <windows.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <vector>

#include "common/unique_handle.h"
#include "frame.h"

namespace pipelink {

inline constexpr DWORD kDefaultWriteTimeoutMs = 5000;

// Takes the owner of `object` out of `owners` under `lock`, to be ended after the lock is
// released; empty when `object` is not there.
template <class Owners, class Object>
typename Owners::value_type TakeOwner(std::mutex& lock, Owners& owners, const Object* object) {
  std::lock_guard hold(lock);
  auto it = std::find_if(owners.begin(), owners.end(), [object](const auto& owner) { return owner.get() == object; });
  if (it == owners.end()) return {};
  typename Owners::value_type taken = std::move(*it);
  owners.erase(it);
  return taken;
}

class PipeEnd {
 public:
  explicit PipeEnd(HANDLE pipe);  // takes ownership
  PipeEnd(const PipeEnd&) = delete;
  PipeEnd& operator=(const PipeEnd&) = delete;

  // False when the events could not be made.
  bool Ready() const { return pipe_.valid() && readEvent_.valid() && writeEvent_.valid(); }
  HANDLE Handle() const { return pipe_.get(); }

  // Reads one whole message into `buffer` (grown as needed, never beyond kMaxFrameBytes) and
  // sets *got. 0; 234 (ERROR_MORE_DATA) when the message is too long; 995 when `stop` was
  // set; 258 after `timeoutMs`; otherwise the pipe's error. Only one thread may read.
  [[nodiscard]] std::uint32_t Read(std::vector<std::uint8_t>& buffer, std::size_t* got, HANDLE stop, DWORD timeoutMs);

  // Writes one frame; writers are serialised. 0, 995, 258 or the pipe's error.
  [[nodiscard]] std::uint32_t Write(const FrameHeader& header, const void* payload, std::uint32_t size, HANDLE stop,
                                    DWORD timeoutMs);

 private:
  ky::unique_file pipe_;
  ky::unique_handle readEvent_;
  ky::unique_handle writeEvent_;
  std::mutex writeLock_;
  std::vector<std::uint8_t> writeBuffer_;
};

}  // namespace pipelink
