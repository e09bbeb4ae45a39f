// The connector's frame header: encoding and the checks every received frame must pass.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "lumera/pipelink.h"

namespace pipelink {

struct FrameHeader {
  std::uint32_t magic = kFrameMagic;
  std::uint32_t clientId = 0;
  std::uint32_t result = 0;
  std::uint32_t size = 0;
  std::uint32_t id = 0;
  std::uint32_t flags = 0;
  std::uint32_t sequence = 0;
  std::uint32_t reserved = 0;
};

enum class FrameCheck { kOk, kShort, kTooLong, kBadMagic, kBadSize, kBadFlags };

// Builds header + payload into `out` (replacing its contents). False when the payload is
// larger than kMaxPayloadBytes or null with a non-zero size.
[[nodiscard]] bool BuildFrame(FrameHeader header, const void* payload, std::uint32_t size, std::vector<std::uint8_t>& out);

// Decodes and checks the frame of `bytes` received bytes; *header is written only on kOk.
[[nodiscard]] FrameCheck ParseFrame(const std::uint8_t* data, std::size_t bytes, FrameHeader* header);

}  // namespace pipelink
