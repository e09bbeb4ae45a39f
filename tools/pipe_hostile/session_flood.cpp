#include "session_flood.h"

#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "lumera/pipelink.h"

namespace hostile {
namespace {

constexpr wchar_t kPipePath[] = L"\\\\.\\pipe\\boottimepipe";
constexpr DWORD kWelcomeWaitMs = 5000;
constexpr DWORD kBusyWaitMs = 200;
constexpr int kOpenAttempts = 50;

enum class Welcome { kIdentity, kRefused, kOther };

// Reads the server's first frame: an identity, or the refusal of a server at its cap.
Welcome ReadWelcome(HANDLE pipe) {
  ky::unique_handle event(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
  std::uint8_t frame[pipelink::kFrameHeaderBytes + 64] = {};
  OVERLAPPED ov{};
  ov.hEvent = event.get();
  DWORD got = 0;
  if (!::ReadFile(pipe, frame, sizeof frame, nullptr, &ov) && ::GetLastError() != ERROR_IO_PENDING) {
    return Welcome::kOther;
  }
  if (::WaitForSingleObject(event.get(), kWelcomeWaitMs) != WAIT_OBJECT_0) {
    ::CancelIoEx(pipe, &ov);
    ::GetOverlappedResult(pipe, &ov, &got, TRUE);
    return Welcome::kOther;
  }
  if (!::GetOverlappedResult(pipe, &ov, &got, FALSE) || got < pipelink::kFrameHeaderBytes) return Welcome::kOther;
  std::uint32_t clientId = 0;
  std::uint32_t result = 0;
  std::memcpy(&clientId, frame + 4, 4);
  std::memcpy(&result, frame + 8, 4);
  if (result == ERROR_PIPE_BUSY && clientId == 0) return Welcome::kRefused;
  return result == 0 && clientId != 0 ? Welcome::kIdentity : Welcome::kOther;
}

}  // namespace

void SessionFlood::Open(int clients, HANDLE stop) {
  for (int i = 0; i < clients && ::WaitForSingleObject(stop, 0) != WAIT_OBJECT_0; ++i) {
    ky::unique_file pipe;
    for (int attempt = 0; attempt < kOpenAttempts && !pipe; ++attempt) {
      pipe.reset(::CreateFileW(kPipePath, pipelink::kClientPipeAccess, 0, nullptr, OPEN_EXISTING,
                               FILE_FLAG_OVERLAPPED, nullptr));
      if (!pipe && ::GetLastError() != ERROR_PIPE_BUSY) break;
      if (!pipe) ::WaitNamedPipeW(kPipePath, kBusyWaitMs);
    }
    DWORD mode = PIPE_READMODE_MESSAGE;
    if (!pipe || !::SetNamedPipeHandleState(pipe.get(), &mode, nullptr, nullptr)) {
      ++totals_.other;
      continue;
    }
    ++totals_.opened;
    switch (ReadWelcome(pipe.get())) {
      case Welcome::kIdentity:
        ++totals_.held;
        held_.push_back(std::move(pipe));
        break;
      case Welcome::kRefused:
        ++totals_.refused;
        break;
      case Welcome::kOther:
        ++totals_.other;
        break;
    }
  }
}

std::uint64_t CountInLogs(const std::wstring& folder, const char* text) {
  std::uint64_t count = 0;
  std::error_code error;
  const std::string needle(text);
  for (const auto& entry : std::filesystem::directory_iterator(folder, error)) {
    if (!entry.is_regular_file(error)) continue;
    std::ifstream file(entry.path(), std::ios::binary);
    const std::string content((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    for (std::size_t at = content.find(needle); at != std::string::npos; at = content.find(needle, at + 1)) ++count;
  }
  return count;
}

}  // namespace hostile
