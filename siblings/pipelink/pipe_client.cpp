#include "pipe_client.h"

#include <algorithm>
#include <cstring>
#include <new>

#include "lumera/interface_ids.h"
#include "pipe_server.h"
#include "server_account.h"

namespace pipelink {
namespace {

constexpr DWORD kBusyRetryMs = 20;
// WaitNamedPipeW takes no stop event, so a busy pipe is waited for in steps this long.
constexpr DWORD kBusyWaitStepMs = 50;

PipeMessage* NewReply(const FrameHeader& header, const std::uint8_t* payload) {
  void* block = ::operator new(sizeof(PipeMessage) + header.size, std::nothrow);
  if (block == nullptr) return nullptr;
  auto* copy = static_cast<std::uint8_t*>(block) + sizeof(PipeMessage);
  if (header.size != 0) std::memcpy(copy, payload, header.size);
  return new (block) PipeMessage{header.clientId, header.result, header.size, header.id, copy, header.flags,
                                 header.sequence};
}

class SrwHold {
 public:
  explicit SrwHold(SRWLOCK& lock) : lock_(lock) { ::AcquireSRWLockExclusive(&lock_); }
  ~SrwHold() { ::ReleaseSRWLockExclusive(&lock_); }
  SrwHold(const SrwHold&) = delete;
  SrwHold& operator=(const SrwHold&) = delete;

 private:
  SRWLOCK& lock_;
};

DWORD Remaining(ULONGLONG deadline) {
  if (deadline == ~0ull) return INFINITE;
  const ULONGLONG now = ::GetTickCount64();
  return now >= deadline ? 0 : static_cast<DWORD>(std::min<ULONGLONG>(deadline - now, INFINITE - 1));
}

}  // namespace

// ---- PipeClient ----------------------------------------------------------------------

PipeClient::PipeClient() : stop_(::CreateEventW(nullptr, TRUE, FALSE, nullptr)) {}

PipeClient::~PipeClient() { Stop(); }

std::uint32_t PipeClient::Connect(const std::wstring& path, DWORD timeoutMs, HANDLE stop) {
  if (!stop_) return ::GetLastError();
  if (stop == nullptr) stop = stop_.get();
  const auto stopped = [stop](DWORD waitMs) { return ::WaitForSingleObject(stop, waitMs) == WAIT_OBJECT_0; };
  const ULONGLONG deadline = timeoutMs == INFINITE ? ~0ull : ::GetTickCount64() + timeoutMs;
  HANDLE pipe = INVALID_HANDLE_VALUE;
  for (;;) {
    if (stopped(0)) return ERROR_OPERATION_ABORTED;
    pipe = ::CreateFileW(path.c_str(), kClientPipeAccess, 0, nullptr, OPEN_EXISTING,
                         FILE_FLAG_OVERLAPPED | SECURITY_SQOS_PRESENT | SECURITY_IDENTIFICATION, nullptr);
    if (pipe != INVALID_HANDLE_VALUE) break;
    const DWORD error = ::GetLastError();
    if (error != ERROR_PIPE_BUSY) return error;
    const DWORD left = Remaining(deadline);
    if (left == 0) return WAIT_TIMEOUT;
    // Another client may take the freed instance first; then we simply wait again.
    if (!::WaitNamedPipeW(path.c_str(), std::min(left, kBusyWaitStepMs)) && stopped(std::min(left, kBusyRetryMs))) {
      return ERROR_OPERATION_ABORTED;
    }
  }
  end_ = std::make_unique<PipeEnd>(pipe);
  if (!end_->Ready()) return ERROR_NOT_ENOUGH_MEMORY;
  DWORD mode = PIPE_READMODE_MESSAGE;
  if (!::SetNamedPipeHandleState(end_->Handle(), &mode, nullptr, nullptr)) return ::GetLastError();
  if (const std::uint32_t account = CheckServerAccount(end_->Handle(), path); account != 0) return account;

  std::vector<std::uint8_t> buffer;
  std::size_t got = 0;
  const std::uint32_t read = end_->Read(buffer, &got, stop, Remaining(deadline));
  if (read != 0) return read;
  FrameHeader hello;
  if (ParseFrame(buffer.data(), got, &hello) != FrameCheck::kOk || hello.id != kIdHello ||
      (hello.flags & kFlagControl) == 0) {
    return ERROR_INVALID_DATA;
  }
  // A server at its limit of sessions welcomes with its refusal and no identity.
  if (hello.result != 0) return hello.result;
  if (hello.clientId == 0) return ERROR_INVALID_DATA;
  clientId_ = hello.clientId;
  broken_ = false;
  try {
    reader_ = std::thread([this] { Run(); });
  } catch (...) {
    broken_ = true;
    return ERROR_NOT_ENOUGH_MEMORY;
  }
  return 0;
}

void PipeClient::Run() {
  std::vector<std::uint8_t> buffer;
  std::uint32_t ended = ERROR_BROKEN_PIPE;
  for (;;) {
    std::size_t got = 0;
    const std::uint32_t read = end_->Read(buffer, &got, stop_.get(), INFINITE);
    if (read == ERROR_OPERATION_ABORTED) ended = read;
    if (read != 0) break;
    FrameHeader header;
    // Only the server writes to this end: anything malformed means the connection is unusable.
    if (ParseFrame(buffer.data(), got, &header) != FrameCheck::kOk || header.clientId != 0) break;
    if ((header.flags & kFlagControl) != 0) continue;
    const std::uint8_t* payload = buffer.data() + kFrameHeaderBytes;
    if ((header.flags & kFlagIsReply) != 0) {
      PipeMessage* reply = NewReply(header, payload);
      {
        SrwHold hold(pendingLock_);
        auto it = pending_.find(header.sequence);
        if (it != pending_.end()) {
          it->second->reply = reply;
          it->second->error = reply != nullptr ? 0 : ERROR_NOT_ENOUGH_MEMORY;
          it->second->done = true;
          pending_.erase(it);
          reply = nullptr;
        }
      }
      ::WakeAllConditionVariable(&pendingDone_);
      FreeReply(reply);  // its sender gave up waiting
      continue;
    }
    PipeMessage message{0, header.result, header.size, header.id, payload, header.flags, header.sequence};
    runningSequence_ = header.sequence;
    replied_ = false;
    const std::uint32_t status = callback_.Call(message);
    if (ExpectsReply(message) && !replied_) (void)Reply(&message, header.id, status, nullptr, 0);
  }
  broken_ = true;
  FailPending(ended);
}

void PipeClient::FailPending(std::uint32_t error) {
  {
    SrwHold hold(pendingLock_);
    for (auto& [sequence, pending] : pending_) {
      pending->error = error;
      pending->done = true;
    }
    pending_.clear();
  }
  ::WakeAllConditionVariable(&pendingDone_);
}

std::uint32_t PipeClient::Write(FrameHeader header, const void* payload, std::uint32_t size) {
  if (broken_ || !end_) return ERROR_PIPE_NOT_CONNECTED;
  header.clientId = clientId_;
  const std::uint32_t result = end_->Write(header, payload, size, stop_.get(), kDefaultWriteTimeoutMs);
  return result;
}

std::uint32_t PipeClient::Send(std::uint32_t id, const void* payload, std::uint32_t size, PipeMessage** reply,
                                      std::uint32_t, std::uint32_t timeoutMs) {
  try {
    if (reply == nullptr) return ERROR_INVALID_PARAMETER;
    *reply = nullptr;
    if (broken_) return ERROR_PIPE_NOT_CONNECTED;
    Pending pending;
    std::uint32_t sequence = nextSequence_++;
    if (sequence == 0) sequence = nextSequence_++;
    {
      SrwHold hold(pendingLock_);
      pending_[sequence] = &pending;
    }
    FrameHeader header;
    header.id = id;
    header.flags = kFlagReplyExpected;
    header.sequence = sequence;
    std::uint32_t result = Write(header, payload, size);
    SrwHold hold(pendingLock_);
    if (result == 0) {
      // Stop ends the reader, which fails every pending request, so this wait needs no stop event.
      const bool forever = timeoutMs == kNoTimeout;
      const ULONGLONG deadline = ::GetTickCount64() + timeoutMs;
      while (!pending.done) {
        const DWORD left = forever ? INFINITE : Remaining(deadline);
        if (left == 0) {
          result = WAIT_TIMEOUT;
          break;
        }
        ::SleepConditionVariableSRW(&pendingDone_, &pendingLock_, left, 0);
      }
    }
    pending_.erase(sequence);
    // The reply may have landed between the time-out and taking the lock back.
    if (pending.done) result = pending.error;
    if (result != 0) {
      FreeReply(pending.reply);
      return result;
    }
    *reply = pending.reply;
    return 0;
  } catch (...) {
    return ERROR_GEN_FAILURE;
  }
}

std::uint32_t PipeClient::Post(std::uint32_t id, const void* payload, std::uint32_t size, std::uint32_t) {
  try {
    FrameHeader header;
    header.id = id;
    return Write(header, payload, size);
  } catch (...) {
    return ERROR_GEN_FAILURE;
  }
}

void PipeClient::FreeReply(PipeMessage* reply) {
  if (reply == nullptr) return;
  reply->~PipeMessage();
  ::operator delete(reply);
}

std::uint32_t PipeClient::RegisterCallback(PipeCallback callback, void* context, std::uint32_t kind) {
  return callback_.Register(callback, context, kind);
}

std::uint32_t PipeClient::UnregisterCallback(std::uint32_t kind) { return callback_.Unregister(kind); }

std::uint32_t PipeClient::Reply(const PipeMessage* request, std::uint32_t id, std::uint32_t result, const void* payload,
                                std::uint32_t size) {
  FrameHeader header;
  header.id = id;
  header.result = result;
  header.flags = kFlagIsReply;
  header.sequence = request->sequence;
  if (request->sequence == runningSequence_) replied_ = true;
  return Write(header, payload, size);
}

std::uint32_t PipeClient::Acknowledge(const PipeMessage* message, std::uint32_t status) {
  try {
    if (message == nullptr) return ERROR_INVALID_PARAMETER;
    if (!ExpectsReply(*message)) return 0;
    return Reply(message, message->id, status, nullptr, 0);
  } catch (...) {
    return ERROR_GEN_FAILURE;
  }
}

std::uint32_t PipeClient::ReplyData(const PipeMessage* request, std::uint32_t id, const void* payload, std::uint32_t size) {
  try {
    if (request == nullptr || !ExpectsReply(*request)) return ERROR_INVALID_PARAMETER;
    return Reply(request, id, 0, payload, size);
  } catch (...) {
    return ERROR_GEN_FAILURE;
  }
}

std::uint32_t PipeClient::Stop() {
  if (stop_) ::SetEvent(stop_.get());
  if (reader_.joinable()) reader_.join();
  broken_ = true;
  FailPending(ERROR_OPERATION_ABORTED);
  return 0;
}

// ---- ConnClient ----------------------------------------------------------------------

ConnClient::~ConnClient() {
  std::vector<std::unique_ptr<PipeClient>> connections;
  {
    std::lock_guard hold(lock_);
    connections.swap(connections_);
  }
  connections.clear();
}

void* ConnClient::GetInterface(const GUID& iid) {
  return KyInterfaceFor<IConnClient>(this, iid, {lumera::ids::IKyBaseInterface, lumera::ids::PipeLinkClient});
}

std::uint32_t ConnClient::Init(std::uint32_t) {
  std::lock_guard hold(lock_);
  initialised_ = true;
  return 0;
}

std::uint32_t ConnClient::Start() {
  std::lock_guard hold(lock_);
  if (!initialised_) return ERROR_SERVICE_NOT_ACTIVE;
  started_ = true;
  return 0;
}

std::uint32_t ConnClient::Connect(const wchar_t* name, std::uint32_t, std::uint32_t, std::uint32_t timeoutMs,
                                  IConnPipeClient** out) {
  return ConnectUntil(name, nullptr, timeoutMs, out);
}

std::uint32_t ConnClient::ConnectUntil(const wchar_t* name, HANDLE stopEvent, std::uint32_t timeoutMs,
                                       IConnPipeClient** out) {
  try {
    if (out == nullptr) return ERROR_INVALID_PARAMETER;
    *out = nullptr;
    {
      std::lock_guard hold(lock_);
      if (!started_) return ERROR_SERVICE_NOT_ACTIVE;
    }
    const std::wstring path = PipePath(name);
    if (path.empty()) return ERROR_INVALID_NAME;
    auto connection = std::make_unique<PipeClient>();
    const std::uint32_t result = connection->Connect(path, timeoutMs == kNoTimeout ? INFINITE : timeoutMs, stopEvent);
    if (result != 0) return result;
    std::lock_guard hold(lock_);
    *out = connection.get();
    connections_.push_back(std::move(connection));
    return 0;
  } catch (...) {
    return ERROR_GEN_FAILURE;
  }
}

void ConnClient::Close(IConnPipeClient* connection) { TakeOwner(lock_, connections_, connection).reset(); }

std::uint32_t ConnClient::Stop() {
  std::lock_guard hold(lock_);
  for (auto& connection : connections_) connection->Stop();
  started_ = false;
  return 0;
}

}  // namespace pipelink
