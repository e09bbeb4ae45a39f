// Message ids of "boottimepipe", the same on both sides.
#pragma once

#include <windows.h>

#include <cstdint>

#include "common/guard.h"
#include "lumera/pipelink.h"

namespace boottime::msg {

inline constexpr wchar_t kPipeName[] = L"boottimepipe";
inline constexpr std::uint32_t kTimeoutMs = 5000;

inline constexpr std::uint32_t kErrorIdOffset = 9;

constexpr std::uint32_t ErrorIdOf(std::uint32_t queryId) { return queryId + kErrorIdOffset; }

inline constexpr std::uint32_t NpcMsgBootTimeGetBootTime = 1;
inline constexpr std::uint32_t NpcMsgBootTimeGetTotalBootImpact = 2;
inline constexpr std::uint32_t NpcMsgBootTimeGetBootImpact = 3;
inline constexpr std::uint32_t NpcMsgBootTimeGetDiskSpeed = 4;
inline constexpr std::uint32_t NpcMsgBootTimeGetBootHistory = 5;
// Each query's failure answer is its id + 9, so the ids 10 to 14 are taken.
inline constexpr std::uint32_t NpcMsgBootTimeGetBootTimeError = ErrorIdOf(NpcMsgBootTimeGetBootTime);
inline constexpr std::uint32_t NpcMsgBootTimeGetTotalBootImpactError = ErrorIdOf(NpcMsgBootTimeGetTotalBootImpact);
inline constexpr std::uint32_t NpcMsgBootTimeGetBootImpactError = ErrorIdOf(NpcMsgBootTimeGetBootImpact);
inline constexpr std::uint32_t NpcMsgBootTimeGetDiskSpeedError = ErrorIdOf(NpcMsgBootTimeGetDiskSpeed);
inline constexpr std::uint32_t NpcMsgBootTimeGetBootHistoryError = ErrorIdOf(NpcMsgBootTimeGetBootHistory);
inline constexpr std::uint32_t NpcMsgBootTimeOnDataAnalysed = 20;
static_assert(NpcMsgBootTimeGetBootHistoryError == 14, "the protocol's numbers are fixed");

// The body of a connector callback on either side: `handle(receiver, message)` for the
// object behind `context`, 31 when either is null, and an exception turned into a failure
// logged under `function`.
template <class Receiver, class Handle>
std::uint32_t Deliver(const wchar_t* function, void* context, const pipelink::PipeMessage* message, Handle handle) {
  return ky::Guarded(function, ky::kGeneralFailure, [&]() -> std::uint32_t {
    if (context == nullptr || message == nullptr) return ERROR_GEN_FAILURE;
    return handle(*static_cast<Receiver*>(context), *message);
  });
}

}  // namespace boottime::msg
