#include "idle_watch.h"

namespace winestandins {

std::optional<std::uint32_t> IdleWatch::Feed(std::uint32_t tick, std::uint64_t idle, std::uint64_t kernel,
                                             std::uint64_t user) {
  if (ended_) return ended_;
  const std::uint64_t total = kernel + user;
  if (havePrevious_ && tick != previousTick_) {
    const std::uint64_t idleDelta = idle >= previousIdle_ ? idle - previousIdle_ : 0;
    const std::uint64_t totalDelta = total >= previousTotal_ ? total - previousTotal_ : 0;
    // No processor time passed at all reads as idle: nothing ran.
    const double share = totalDelta == 0 ? 1.0 : static_cast<double>(idleDelta) / static_cast<double>(totalDelta);
    if (share >= idleShare_) {
      if (!idleSince_) idleSince_ = previousTick_;
      if (tick - *idleSince_ >= windowMs_) ended_ = idleSince_;
    } else {
      idleSince_.reset();
    }
  }
  havePrevious_ = true;
  previousTick_ = tick;
  previousIdle_ = idle;
  previousTotal_ = total;
  return ended_;
}

}  // namespace winestandins
