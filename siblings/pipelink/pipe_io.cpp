#include "pipe_io.h"

#include <algorithm>

namespace pipelink {
namespace {

constexpr std::size_t kInitialReadBytes = 64 * 1024;

// Waits for a started operation; on stop or time-out cancels it and waits for the
// cancellation so the OVERLAPPED is never left to the kernel.
DWORD Finish(HANDLE pipe, OVERLAPPED& ov, HANDLE stop, DWORD timeoutMs, DWORD* bytes) {
  HANDLE waits[2] = {ov.hEvent, stop};
  const DWORD count = stop != nullptr ? 2 : 1;
  const DWORD wait = ::WaitForMultipleObjects(count, waits, FALSE, timeoutMs);
  if (wait != WAIT_OBJECT_0) {
    ::CancelIoEx(pipe, &ov);
    DWORD ignored = 0;
    ::GetOverlappedResult(pipe, &ov, &ignored, TRUE);
    return wait == WAIT_TIMEOUT ? WAIT_TIMEOUT : ERROR_OPERATION_ABORTED;
  }
  if (!::GetOverlappedResult(pipe, &ov, bytes, FALSE)) return ::GetLastError();
  return 0;
}

// An operation that finished when it was started needs no wait on its event.
DWORD Completed(HANDLE pipe, OVERLAPPED& ov, DWORD* bytes) {
  if (!::GetOverlappedResult(pipe, &ov, bytes, FALSE)) return ::GetLastError();
  return 0;
}

}  // namespace

PipeEnd::PipeEnd(HANDLE pipe)
    : pipe_(pipe), readEvent_(::CreateEventW(nullptr, TRUE, FALSE, nullptr)),
      writeEvent_(::CreateEventW(nullptr, TRUE, FALSE, nullptr)) {}

std::uint32_t PipeEnd::Read(std::vector<std::uint8_t>& buffer, std::size_t* got, HANDLE stop, DWORD timeoutMs) {
  *got = 0;
  if (buffer.size() < kInitialReadBytes) buffer.resize(kInitialReadBytes);
  std::size_t total = 0;
  for (;;) {
    OVERLAPPED ov{};
    ov.hEvent = readEvent_.get();
    const BOOL ok = ::ReadFile(pipe_.get(), buffer.data() + total, static_cast<DWORD>(buffer.size() - total), nullptr, &ov);
    const DWORD started = ok ? 0 : ::GetLastError();
    if (!ok && started != ERROR_IO_PENDING && started != ERROR_MORE_DATA) return started;
    DWORD bytes = 0;
    const DWORD result = started == ERROR_IO_PENDING ? Finish(pipe_.get(), ov, stop, timeoutMs, &bytes)
                                                     : Completed(pipe_.get(), ov, &bytes);
    if (result == 0) {
      *got = total + bytes;
      return 0;
    }
    if (result != ERROR_MORE_DATA) return result;
    total += bytes;
    if (buffer.size() >= kMaxFrameBytes) return ERROR_MORE_DATA;
    buffer.resize(std::min<std::size_t>(buffer.size() * 2, kMaxFrameBytes));
  }
}

std::uint32_t PipeEnd::Write(const FrameHeader& header, const void* payload, std::uint32_t size, HANDLE stop,
                             DWORD timeoutMs) {
  std::lock_guard hold(writeLock_);
  if (!BuildFrame(header, payload, size, writeBuffer_)) return ERROR_INVALID_PARAMETER;
  OVERLAPPED ov{};
  ov.hEvent = writeEvent_.get();
  const BOOL ok = ::WriteFile(pipe_.get(), writeBuffer_.data(), static_cast<DWORD>(writeBuffer_.size()), nullptr, &ov);
  if (!ok && ::GetLastError() != ERROR_IO_PENDING) return ::GetLastError();
  DWORD bytes = 0;
  const DWORD result = ok ? Completed(pipe_.get(), ov, &bytes) : Finish(pipe_.get(), ov, stop, timeoutMs, &bytes);
  if (result != 0) return result;
  return bytes == writeBuffer_.size() ? 0 : ERROR_WRITE_FAULT;
}

}  // namespace pipelink
