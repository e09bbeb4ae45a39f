// Message ids of "boottimepipe", the same on both sides.
#pragma once

#include <cstdint>

namespace boottime::msg {

inline constexpr wchar_t kPipeName[] = L"boottimepipe";
inline constexpr std::uint32_t kTimeoutMs = 5000;

inline constexpr std::uint32_t NpcMsgBootTimeGetBootTime = 1;
inline constexpr std::uint32_t NpcMsgBootTimeGetTotalBootImpact = 2;
inline constexpr std::uint32_t NpcMsgBootTimeGetBootImpact = 3;
inline constexpr std::uint32_t NpcMsgBootTimeGetDiskSpeed = 4;
inline constexpr std::uint32_t NpcMsgBootTimeGetBootTimeError = 10;
inline constexpr std::uint32_t NpcMsgBootTimeGetTotalBootImpactError = 11;
inline constexpr std::uint32_t NpcMsgBootTimeGetBootImpactError = 12;
inline constexpr std::uint32_t NpcMsgBootTimeGetDiskSpeedError = 13;
inline constexpr std::uint32_t NpcMsgBootTimeOnDataAnalysed = 20;

inline constexpr std::uint32_t kErrorIdOffset = 9;

constexpr std::uint32_t ErrorIdOf(std::uint32_t queryId) { return queryId + kErrorIdOffset; }

}  // namespace boottime::msg
