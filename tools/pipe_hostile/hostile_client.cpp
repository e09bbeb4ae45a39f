#include "hostile_client.h"

#include <cstring>
#include <string>
#include <vector>

#include "boottime/comm/payload.h"
#include "common/unique_handle.h"
#include "lumera/pipelink.h"
#include "mutator.h"

namespace hostile {
namespace {

constexpr wchar_t kPipePath[] = L"\\\\.\\pipe\\boottimepipe";
constexpr DWORD kIoTimeoutMs = 5000;  // as long as a good client waits
constexpr DWORD kBusyWaitMs = 200;
constexpr std::size_t kMaxFramesPerConnection = 64;
constexpr std::size_t kOversizedOneIn = 4000;  // of all frames; a megabyte write each, so rare

using Bytes = fuzz::Bytes;

void PutU32(Bytes& out, std::size_t at, std::uint32_t value) {
  for (int i = 0; i < 4; ++i) out[at + i] = static_cast<std::uint8_t>(value >> (8 * i));
}

Bytes Frame(std::uint32_t clientId, std::uint32_t id, std::uint32_t flags, std::uint32_t sequence, const Bytes& payload) {
  Bytes out(pipelink::kFrameHeaderBytes + payload.size(), 0);
  PutU32(out, 0, pipelink::kFrameMagic);
  PutU32(out, 4, clientId);
  PutU32(out, 12, static_cast<std::uint32_t>(payload.size()));
  PutU32(out, 16, id);
  PutU32(out, 20, flags);
  PutU32(out, 24, sequence);
  if (!payload.empty()) std::memcpy(out.data() + pipelink::kFrameHeaderBytes, payload.data(), payload.size());
  return out;
}

// Request payloads a careless or lying client might send: right, short, long, or lying counts.
Bytes LyingPayload(fuzz::Rng& rng, fuzz::Mutator& mutator) {
  boottime::CPayloadWriter writer;
  writer.WriteProcessKey(rng.Below(8), rng.Below(5000), rng.OneIn(2) ? L"" : L"C:\\Windows\\explorer.exe");
  Bytes payload(writer.Data(), writer.Data() + writer.Size());
  switch (rng.Below(5)) {
    case 0:
      return payload;
    case 1:
      payload.resize(rng.Below(payload.size()));
      return payload;
    case 2:
      PutU32(payload, 16, rng.OneIn(2) ? 0xFFFFFFFF : static_cast<std::uint32_t>(rng.Below(100000)));  // string length
      return payload;
    case 3: {
      Bytes random(rng.Below(200));
      for (auto& b : random) b = static_cast<std::uint8_t>(rng.Next());
      return random;
    }
    default: {
      const std::vector<Bytes> none;
      mutator.Mutate(payload, none);
      return payload;
    }
  }
}

class Connection {
 public:
  explicit Connection(HANDLE stop) : stop_(stop), event_(::CreateEventW(nullptr, TRUE, FALSE, nullptr)) {}

  bool Open() {
    for (int attempt = 0; attempt < 50; ++attempt) {
      pipe_.reset(::CreateFileW(kPipePath, GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, FILE_FLAG_OVERLAPPED, nullptr));
      if (pipe_) break;
      if (::GetLastError() != ERROR_PIPE_BUSY && ::GetLastError() != ERROR_FILE_NOT_FOUND) return false;
      if (::WaitForSingleObject(stop_, 0) == WAIT_OBJECT_0) return false;
      ::WaitNamedPipeW(kPipePath, kBusyWaitMs);
    }
    DWORD mode = PIPE_READMODE_MESSAGE;
    return pipe_ && ::SetNamedPipeHandleState(pipe_.get(), &mode, nullptr, nullptr);
  }
  void Close() { pipe_.reset(); }

  // The whole message written within the time-out.
  bool Write(const Bytes& bytes) {
    DWORD done = 0;
    return Transfer(::WriteFile, bytes.data(), bytes.size(), &done) && done == bytes.size();
  }

  // One whole message, or false on time-out, a broken pipe or a message too big for the buffer.
  bool Read(Bytes& into) {
    into.resize(64 * 1024);
    DWORD done = 0;
    if (!Transfer(::ReadFile, into.data(), into.size(), &done)) return false;
    into.resize(done);
    return true;
  }

  // Reads whatever the server already sent, without waiting.
  void Drain(Bytes& scratch) {
    DWORD available = 0;
    while (::PeekNamedPipe(pipe_.get(), nullptr, 0, nullptr, &available, nullptr) && available > 0) {
      if (!Read(scratch)) return;
    }
  }

 private:
  // One overlapped ReadFile or WriteFile of `bytes` at `data`, finished within the time-out.
  template <class Io, class Data>
  bool Transfer(Io io, Data* data, std::size_t bytes, DWORD* done) {
    OVERLAPPED ov{};
    ov.hEvent = event_.get();
    if (!io(pipe_.get(), data, static_cast<DWORD>(bytes), nullptr, &ov) && ::GetLastError() != ERROR_IO_PENDING) {
      return false;
    }
    return Finish(ov, done);
  }

  bool Finish(OVERLAPPED& ov, DWORD* done) {
    HANDLE waits[2] = {event_.get(), stop_};
    if (::WaitForMultipleObjects(2, waits, FALSE, kIoTimeoutMs) != WAIT_OBJECT_0) {
      ::CancelIoEx(pipe_.get(), &ov);
      ::GetOverlappedResult(pipe_.get(), &ov, done, TRUE);
      return false;
    }
    return ::GetOverlappedResult(pipe_.get(), &ov, done, FALSE) != FALSE;
  }

  HANDLE stop_;
  ky::unique_handle event_;
  ky::unique_file pipe_;
};

enum class Sent { kKept, kDropped, kFailed };

// One frame of a randomly chosen kind. Frames the connector must refuse end the connection.
Sent SendOne(Connection& c, fuzz::Rng& rng, fuzz::Mutator& mutator, std::uint32_t clientId, std::uint32_t& sequence,
             HostileTotals& totals, Bytes& scratch) {
  const std::uint32_t queryId = 1 + static_cast<std::uint32_t>(rng.Below(4));
  Bytes frame;
  bool refused = true;
  bool waitReply = false;
  // One frame in five is refused by the connector and ends its connection; the rest keep it.
  static constexpr std::size_t kRefusedKinds[] = {0, 1, 2, 3, 4, 7};
  static constexpr std::size_t kKeptKinds[] = {5, 6, 8, 8, 8, 8};
  const std::size_t kind = rng.OneIn(5) ? kRefusedKinds[rng.Below(6)] : kKeptKinds[rng.Below(6)];
  switch (kind) {
    case 0: {  // random bytes, header-sized or not
      frame.resize(rng.Below(96));
      for (auto& b : frame) b = static_cast<std::uint8_t>(rng.Next());
      break;
    }
    case 1: {  // truncated: the header promises more than arrives
      frame = Frame(clientId, queryId, pipelink::kFlagReplyExpected, ++sequence, LyingPayload(rng, mutator));
      frame.resize(rng.Below(frame.size()));
      break;
    }
    case 2: {  // a size field that lies
      frame = Frame(clientId, queryId, 0, ++sequence, LyingPayload(rng, mutator));
      PutU32(frame, 12, static_cast<std::uint32_t>(rng.Next()));
      break;
    }
    case 3:  // another client's identity, or the connector's own control frames
      frame = Frame(rng.OneIn(2) ? clientId + 1 + static_cast<std::uint32_t>(rng.Below(100)) : clientId, queryId,
                    rng.OneIn(2) ? pipelink::kFlagControl : pipelink::kFlagReplyExpected | pipelink::kFlagIsReply, ++sequence, {});
      break;
    case 4:  // wrong magic or unknown flags, otherwise fine
      frame = Frame(clientId, queryId, 0, ++sequence, {});
      PutU32(frame, rng.OneIn(2) ? 0 : 20, static_cast<std::uint32_t>(rng.Next() | 0x80));
      break;
    case 5:  // a mutated valid frame: anything may happen, so the connection is not used again
      frame = Frame(clientId, queryId, pipelink::kFlagReplyExpected, ++sequence, LyingPayload(rng, mutator));
      mutator.Mutate(frame, {});
      break;
    case 6:  // a reply no one asked for
      frame = Frame(clientId, queryId, pipelink::kFlagIsReply, ++sequence, LyingPayload(rng, mutator));
      refused = false;
      break;
    case 7:  // oversized, rarely; otherwise an empty message
      if (rng.OneIn(kOversizedOneIn / 30 + 1)) {
        frame = Frame(clientId, queryId, 0, ++sequence, Bytes(pipelink::kMaxFrameBytes + rng.Below(4096)));
      }
      break;
    default: {  // well framed, lying inside: unknown ids and bad request payloads, posted or sent
      const std::uint32_t id = rng.OneIn(4) ? static_cast<std::uint32_t>(rng.Next()) : queryId;
      waitReply = rng.OneIn(2);
      frame = Frame(clientId, id, waitReply ? pipelink::kFlagReplyExpected : 0, ++sequence, LyingPayload(rng, mutator));
      refused = false;
      break;
    }
  }
  if (!c.Write(frame)) return Sent::kFailed;
  ++totals.frames;
  if (refused) return Sent::kDropped;
  if (!waitReply) {
    c.Drain(scratch);
    return Sent::kKept;
  }
  // A request the connector accepted is always answered, whatever its payload held.
  ++totals.asked;
  // Answers to queries posted earlier on this connection may come first.
  for (std::size_t i = 0; i <= kMaxFramesPerConnection; ++i) {
    if (!c.Read(scratch)) return Sent::kFailed;
    if (scratch.size() >= pipelink::kFrameHeaderBytes && (scratch[20] & pipelink::kFlagIsReply) != 0 &&
        std::memcmp(&scratch[24], &frame[24], 4) == 0) {
      ++totals.replied;
      return Sent::kKept;
    }
  }
  return Sent::kFailed;
}

}  // namespace

void RunHostileClient(std::uint64_t seed, std::uint64_t budget, HANDLE stop, HostileTotals& totals) {
  fuzz::Rng rng(seed);
  fuzz::Mutator mutator(rng, 4096, false, {});
  Connection connection(stop);
  Bytes scratch;
  while (totals.frames < budget && ::WaitForSingleObject(stop, 0) == WAIT_TIMEOUT) {
    if (!connection.Open()) {
      ::WaitForSingleObject(stop, 50);
      continue;
    }
    ++totals.connections;
    if (rng.OneIn(16)) {  // gone before the welcome is read
      connection.Close();
      continue;
    }
    std::uint32_t clientId = 0;
    if (!connection.Read(scratch) || scratch.size() < pipelink::kFrameHeaderBytes) {
      connection.Close();
      continue;
    }
    std::memcpy(&clientId, &scratch[4], 4);
    std::uint32_t sequence = 0;
    const std::size_t frames = 1 + rng.Below(kMaxFramesPerConnection);
    for (std::size_t i = 0; i < frames && totals.frames < budget; ++i) {
      if (SendOne(connection, rng, mutator, clientId, sequence, totals, scratch) != Sent::kKept) break;
      if (rng.OneIn(32)) break;  // dropped in the middle of a conversation
    }
    connection.Close();
  }
}

}  // namespace hostile
