// Decides when the machine has become idle after logon, the way Windows' diagnostics service
// ends a boot's post-boot phase: the processors were at least kIdleShare idle for a whole
// window of kIdleWindowMs. Fed with cumulative system times (GetSystemTimes, where kernel
// time includes idle time); platform-neutral.
#pragma once

#include <cstdint>
#include <optional>

namespace winestandins {

class IdleWatch {
 public:
  static constexpr double kIdleShare = 0.8;
  static constexpr std::uint32_t kIdleWindowMs = 10000;

  explicit IdleWatch(double idleShare = kIdleShare, std::uint32_t windowMs = kIdleWindowMs)
      : idleShare_(idleShare), windowMs_(windowMs) {}

  // One reading at `tick` (ms); times in 100-ns units. Returns the tick at which the idle
  // window began once it has lasted the whole window, and keeps returning it from then on.
  std::optional<std::uint32_t> Feed(std::uint32_t tick, std::uint64_t idle, std::uint64_t kernel, std::uint64_t user);

 private:
  double idleShare_;
  std::uint32_t windowMs_;
  bool havePrevious_ = false;
  std::uint32_t previousTick_ = 0;
  std::uint64_t previousIdle_ = 0;
  std::uint64_t previousTotal_ = 0;
  std::optional<std::uint32_t> idleSince_;
  std::optional<std::uint32_t> ended_;
};

}  // namespace winestandins
