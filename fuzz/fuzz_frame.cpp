// fuzz_frame.exe: the connector's frame check, as every pipe end runs it on received bytes.
#include <cstring>

#include "frame.h"
#include "fuzz_driver.h"

namespace {

using pipelink::FrameCheck;
using pipelink::FrameHeader;

fuzz::Bytes Frame(std::uint32_t clientId, std::uint32_t id, std::uint32_t flags, std::uint32_t result,
                  const std::string& payload) {
  FrameHeader header;
  header.clientId = clientId;
  header.id = id;
  header.flags = flags;
  header.result = result;
  header.sequence = id * 7;
  std::vector<std::uint8_t> out;
  if (!pipelink::BuildFrame(header, payload.data(), static_cast<std::uint32_t>(payload.size()), out)) fuzz::Fail("corpus frame");
  return out;
}

fuzz::Outcome ReadFrame(const std::uint8_t* data, std::size_t size) {
  FrameHeader header;
  header.id = 0xDEADBEEF;
  const FrameCheck check = pipelink::ParseFrame(data, size, &header);
  if (check != FrameCheck::kOk) {
    if (header.id != 0xDEADBEEF) fuzz::Fail("a refused frame wrote the header");
    return static_cast<fuzz::Outcome>(check);
  }
  if (header.size != size - pipelink::kFrameHeaderBytes) fuzz::Fail("an accepted frame's size is not what was received");
  // An accepted frame rebuilds to the very bytes received.
  static std::vector<std::uint8_t> rebuilt;
  if (!pipelink::BuildFrame(header, data + pipelink::kFrameHeaderBytes, header.size, rebuilt) || rebuilt.size() != size ||
      std::memcmp(rebuilt.data(), data, size) != 0) {
    fuzz::Fail("an accepted frame does not rebuild to its bytes");
  }
  return 16 + header.flags * 4 + fuzz::Bucket(header.size);
}

}  // namespace

int main(int argc, char** argv) {
  const std::string key("\0\0\0\0\0\0\0\0\x04\0\0\0\0\0\0\0\x02\0\0\0a\0\0\0", 24);
  return fuzz::Run(argc, argv,
                   {.name = "frame",
                    .corpus = {Frame(0, pipelink::kIdHello, pipelink::kFlagControl, 0, ""),
                               Frame(7, 1, pipelink::kFlagReplyExpected, 0, ""),
                               Frame(7, 3, pipelink::kFlagReplyExpected, 0, key), Frame(7, 3, 0, 0, key),
                               Frame(0, 3, pipelink::kFlagIsReply, 0,
                                     std::string("\x01\0\0\0", 4) + key + std::string(20, '\x05')),
                               Frame(0, 1, pipelink::kFlagIsReply, 1, ""), Frame(0, 20, 0, 0, std::string("\0\0\0\0", 4)),
                               Frame(0, 12, 0, 0, std::string("\x02\0\0\0", 4))},
                    .maxBytes = 4096,
                    .read = &ReadFrame});
}
