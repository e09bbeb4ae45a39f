#include "frame.h"

#include <cstring>

namespace pipelink {
namespace {

void PutU32(std::uint8_t* at, std::uint32_t value) {
  at[0] = static_cast<std::uint8_t>(value);
  at[1] = static_cast<std::uint8_t>(value >> 8);
  at[2] = static_cast<std::uint8_t>(value >> 16);
  at[3] = static_cast<std::uint8_t>(value >> 24);
}

std::uint32_t GetU32(const std::uint8_t* at) {
  return static_cast<std::uint32_t>(at[0]) | static_cast<std::uint32_t>(at[1]) << 8 |
         static_cast<std::uint32_t>(at[2]) << 16 | static_cast<std::uint32_t>(at[3]) << 24;
}

}  // namespace

bool BuildFrame(FrameHeader header, const void* payload, std::uint32_t size, std::vector<std::uint8_t>& out) {
  if (size > kMaxPayloadBytes || (payload == nullptr && size != 0)) return false;
  header.magic = kFrameMagic;
  header.size = size;
  out.resize(kFrameHeaderBytes + size);
  std::uint8_t* at = out.data();
  const std::uint32_t fields[] = {header.magic, header.clientId, header.result,   header.size,
                                  header.id,    header.flags,    header.sequence, header.reserved};
  for (std::uint32_t field : fields) {
    PutU32(at, field);
    at += 4;
  }
  if (size != 0) std::memcpy(at, payload, size);
  return true;
}

FrameCheck ParseFrame(const std::uint8_t* data, std::size_t bytes, FrameHeader* header) {
  if (data == nullptr || bytes < kFrameHeaderBytes) return FrameCheck::kShort;
  if (bytes > kMaxFrameBytes) return FrameCheck::kTooLong;
  FrameHeader h;
  h.magic = GetU32(data);
  h.clientId = GetU32(data + 4);
  h.result = GetU32(data + 8);
  h.size = GetU32(data + 12);
  h.id = GetU32(data + 16);
  h.flags = GetU32(data + 20);
  h.sequence = GetU32(data + 24);
  h.reserved = GetU32(data + 28);
  if (h.magic != kFrameMagic) return FrameCheck::kBadMagic;
  if (h.size != bytes - kFrameHeaderBytes) return FrameCheck::kBadSize;
  if ((h.flags & ~kKnownFlags) != 0 || ((h.flags & kFlagIsReply) && (h.flags & kFlagReplyExpected))) {
    return FrameCheck::kBadFlags;
  }
  *header = h;
  return FrameCheck::kOk;
}

}  // namespace pipelink
