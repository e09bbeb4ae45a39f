// Test helpers over pipelink.dll beside the test program: the library's objects, a raw pipe
// client that writes arbitrary bytes, and frame building.
#pragma once

#include <windows.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "common/module_library.h"
#include "common/unique_handle.h"
#include "lumera/interface_ids.h"
#include "lumera/pipelink.h"
#include "lumera_dev/service_account.h"
#include "support/scratch_folder.h"

namespace testing_pipelink {

// A pipe name no other test or process uses.
inline std::wstring UniqueName(const char* test) {
  return L"lumera-test-" + std::to_wstring(::GetCurrentProcessId()) + L"-" + std::wstring(test, test + std::strlen(test));
}

// pipelink.dll's two objects. The test process serves as the service would, so under Wine it
// stands for LocalSystem unless `asService` is false (then its clients refuse its servers).
class Library {
 public:
  explicit Library(bool asService = true) {
    if (asService) serviceAccount_.emplace();
    if (module_.Load(testsupport::ExeFolder() + L"pipelink.dll") != 0) return;
    void* object = nullptr;
    if (module_.Create(L"connserver", lumera::ids::PipeLinkServer, &object) == 0) server_ = static_cast<pipelink::IConnServer*>(object);
    object = nullptr;
    if (module_.Create(L"connclient", lumera::ids::PipeLinkClient, &object) == 0) client_ = static_cast<pipelink::IConnClient*>(object);
    if (client_ && (client_->Init(0) != 0 || client_->Start() != 0)) client_ = nullptr;
  }
  ~Library() {
    module_.Destroy(L"connclient", client_);
    module_.Destroy(L"connserver", server_);
  }

  bool Ready() const { return server_ != nullptr && client_ != nullptr; }
  pipelink::IConnServer* Server() const { return server_; }
  pipelink::IConnClient* Client() const { return client_; }

 private:
  std::optional<lumera::dev::LocalSystemStandIn> serviceAccount_;
  ky::KyFactoryLibrary module_;
  pipelink::IConnServer* server_ = nullptr;
  pipelink::IConnClient* client_ = nullptr;
};

// Records what a client receives: the last message's id, size and first four payload bytes.
struct Inbox {
  std::atomic<int> count{0};
  std::atomic<std::uint32_t> lastId{0}, lastSize{0}, lastCode{0};
  ky::unique_handle arrived{::CreateEventW(nullptr, FALSE, FALSE, nullptr)};
  static std::uint32_t __cdecl Callback(void* context, const pipelink::PipeMessage* m) {
    auto* self = static_cast<Inbox*>(context);
    std::uint32_t code = 0;
    if (m->size >= 4) std::memcpy(&code, m->payload, 4);
    self->lastId = m->id;
    self->lastSize = m->size;
    self->lastCode = code;
    ++self->count;
    ::SetEvent(self->arrived.get());
    return 0;
  }
  bool Wait(DWORD ms = 5000) const { return ::WaitForSingleObject(arrived.get(), ms) == WAIT_OBJECT_0; }
};

inline void PutU32(std::vector<std::uint8_t>& out, std::uint32_t v) {
  for (int i = 0; i < 4; ++i) out.push_back(static_cast<std::uint8_t>(v >> (8 * i)));
}

inline std::vector<std::uint8_t> Frame(std::uint32_t clientId, std::uint32_t id, std::uint32_t flags,
                                       std::uint32_t sequence, const std::vector<std::uint8_t>& payload,
                                       std::uint32_t magic = pipelink::kFrameMagic) {
  std::vector<std::uint8_t> out;
  for (std::uint32_t v : {magic, clientId, 0u, static_cast<std::uint32_t>(payload.size()), id, flags, sequence, 0u}) PutU32(out, v);
  out.insert(out.end(), payload.begin(), payload.end());
  return out;
}

// A client that speaks the wire format by hand.
class RawPipe {
 public:
  explicit RawPipe(const std::wstring& name) : event_(::CreateEventW(nullptr, TRUE, FALSE, nullptr)) {
    const std::wstring path = L"\\\\.\\pipe\\" + name;
    // Every instance may be taken for a moment while the server makes the next one.
    for (int attempt = 0; attempt < 50 && !pipe_; ++attempt) {
      pipe_.reset(::CreateFileW(path.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING,
                                FILE_FLAG_OVERLAPPED, nullptr));
      if (!pipe_ && ::GetLastError() != ERROR_PIPE_BUSY) break;
      if (!pipe_) ::WaitNamedPipeW(path.c_str(), 100);
    }
    DWORD mode = PIPE_READMODE_MESSAGE;
    if (pipe_) ::SetNamedPipeHandleState(pipe_.get(), &mode, nullptr, nullptr);
  }
  bool Open() const { return pipe_.valid(); }
  HANDLE Handle() const { return pipe_.get(); }

  // The client id from the server's welcome frame, 0 when none came within 5 s; `result`, when
  // given, receives the welcome's result (231 from a server at its cap, 0xFFFFFFFF without one).
  std::uint32_t ReadHello(std::uint32_t* result = nullptr) {
    if (result != nullptr) *result = 0xFFFFFFFF;
    std::vector<std::uint8_t> frame;
    if (Read(frame, 5000) != 0 || frame.size() < pipelink::kFrameHeaderBytes) return 0;
    std::uint32_t id = 0;
    std::memcpy(&id, frame.data() + 4, 4);
    if (result != nullptr) std::memcpy(result, frame.data() + 8, 4);
    return id;
  }

  DWORD Write(const std::vector<std::uint8_t>& bytes) {
    DWORD n = 0;
    return Io(true, const_cast<std::uint8_t*>(bytes.data()), static_cast<DWORD>(bytes.size()), 5000, &n);
  }

  // 0 with a whole message, 258 on time-out, or the pipe's error (109 once the server dropped us).
  DWORD Read(std::vector<std::uint8_t>& out, DWORD timeoutMs) {
    out.assign(pipelink::kMaxFrameBytes, 0);
    DWORD n = 0;
    const DWORD result = Io(false, out.data(), static_cast<DWORD>(out.size()), timeoutMs, &n);
    out.resize(result == 0 ? n : 0);
    return result;
  }

 private:
  DWORD Io(bool write, std::uint8_t* data, DWORD size, DWORD timeoutMs, DWORD* n) {
    OVERLAPPED ov{};
    ov.hEvent = event_.get();
    const BOOL done = write ? ::WriteFile(pipe_.get(), data, size, nullptr, &ov) : ::ReadFile(pipe_.get(), data, size, nullptr, &ov);
    if (!done && ::GetLastError() != ERROR_IO_PENDING) return ::GetLastError();
    if (::WaitForSingleObject(event_.get(), timeoutMs) != WAIT_OBJECT_0) {
      ::CancelIoEx(pipe_.get(), &ov);
      ::GetOverlappedResult(pipe_.get(), &ov, n, TRUE);
      return WAIT_TIMEOUT;
    }
    return ::GetOverlappedResult(pipe_.get(), &ov, n, FALSE) ? 0 : ::GetLastError();
  }

  ky::unique_file pipe_;
  ky::unique_handle event_;
};

}  // namespace testing_pipelink
