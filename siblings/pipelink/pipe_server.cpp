#include "pipe_server.h"

#include <sddl.h>

#include <algorithm>
#include <cwchar>

#include "common/log.h"
#include "lumera/interface_ids.h"

namespace pipelink {
namespace {

constexpr wchar_t kPipePrefix[] = L"\\\\.\\pipe\\";
constexpr std::size_t kMaxPipeNameChars = 200;
// GENERIC_WRITE would include FILE_CREATE_PIPE_INSTANCE and let any user serve the name to
// the others, so users get exactly kClientPipeAccess.
constexpr wchar_t kPipeSddl[] = L"D:P(A;;GA;;;SY)(A;;GA;;;BA)(A;;0x12018b;;;IU)";
static_assert(kClientPipeAccess == 0x12018b, "the SDDL above spells kClientPipeAccess");
constexpr DWORD kRefusalWriteMs = 100;
constexpr DWORD kPipeBufferBytes = 64 * 1024;
constexpr DWORD kRetryCreateMs = 100;
constexpr DWORD kServedProbeMs = 1;  // 0 would mean the pipe's default wait

void LogSecondServer(const std::wstring& path, DWORD error) {
  logging::Write(logging::kLevelError, L"pipelink::PipeServer::Open",
                 L"%s is already served: a second server is refused 0x%x", path.c_str(), error);
}

}  // namespace

std::wstring PipePath(const wchar_t* name) {
  if (name == nullptr) return {};
  const std::size_t length = ::wcsnlen(name, kMaxPipeNameChars + 1);
  if (length == 0 || length > kMaxPipeNameChars || std::wcschr(name, L'\\') != nullptr) return {};
  return std::wstring(kPipePrefix) + name;
}

// ---- Session -------------------------------------------------------------------------

Session::Session(std::uint32_t id, HANDLE pipe, PipeServer& owner) : id_(id), end_(pipe), owner_(owner) {}

Session::~Session() {
  if (thread_.joinable()) thread_.join();
}

bool Session::Start() {
  if (!end_.Ready()) return false;
  try {
    thread_ = std::thread([this] { Run(); });
    return true;
  } catch (...) {
    return false;
  }
}

std::uint32_t Session::Send(FrameHeader header, const void* payload, std::uint32_t size, DWORD timeoutMs) {
  if (done_) return ERROR_PIPE_NOT_CONNECTED;
  const std::uint32_t result = end_.Write(header, payload, size, owner_.StopEvent(), timeoutMs);
  if (result != 0 && result != ERROR_INVALID_PARAMETER) Drop();
  return result;
}

std::uint32_t Session::Reply(std::uint32_t sequence, std::uint32_t messageId, std::uint32_t result, const void* payload,
                             std::uint32_t size) {
  FrameHeader header;
  header.result = result;
  header.id = messageId;
  header.flags = kFlagIsReply;
  header.sequence = sequence;
  if (sequence == runningSequence_) replied_ = true;
  return Send(header, payload, size, kDefaultWriteTimeoutMs);
}

// Disconnecting fails the session's pending read, which ends its thread.
void Session::Drop() { ::DisconnectNamedPipe(end_.Handle()); }

void Session::Run() {
  FrameHeader hello;
  hello.clientId = id_;
  hello.id = kIdHello;
  hello.flags = kFlagControl;
  if (end_.Write(hello, nullptr, 0, owner_.StopEvent(), kDefaultWriteTimeoutMs) == 0) {
    welcomed_ = true;
    std::vector<std::uint8_t> buffer;
    for (;;) {
      std::size_t got = 0;
      if (end_.Read(buffer, &got, owner_.StopEvent(), INFINITE) != 0) break;
      FrameHeader header;
      if (ParseFrame(buffer.data(), got, &header) != FrameCheck::kOk) break;
      // A client speaks only for itself and never sends the connector's control frames.
      if (header.clientId != id_ || (header.flags & kFlagControl) != 0) break;
      if ((header.flags & kFlagIsReply) != 0) continue;  // this server never asks its clients
      PipeMessage message{id_, header.result, header.size, header.id, buffer.data() + kFrameHeaderBytes, header.flags,
                          header.sequence};
      runningSequence_ = header.sequence;
      replied_ = false;
      const std::uint32_t status = owner_.Callback().Call(message);
      if (ExpectsReply(message) && !replied_) {
        if (Reply(header.sequence, header.id, status, nullptr, 0) != 0) break;
      }
    }
  }
  Drop();
  done_ = true;
  owner_.SessionEnded();
}

// ---- PipeServer ----------------------------------------------------------------------

PipeServer::PipeServer(std::wstring name)
    : path_(std::move(name)), stop_(::CreateEventW(nullptr, TRUE, FALSE, nullptr)),
      ended_(::CreateEventW(nullptr, FALSE, FALSE, nullptr)) {}

PipeServer::~PipeServer() { Close(); }

HANDLE PipeServer::CreateInstance(bool first) {
  SECURITY_ATTRIBUTES attributes{sizeof(SECURITY_ATTRIBUTES), securityDescriptor_.get(), FALSE};
  DWORD openMode = PIPE_ACCESS_DUPLEX | FILE_FLAG_OVERLAPPED;
  if (first) openMode |= FILE_FLAG_FIRST_PIPE_INSTANCE;
  return ::CreateNamedPipeW(path_.c_str(), openMode,
                            PIPE_TYPE_MESSAGE | PIPE_READMODE_MESSAGE | PIPE_WAIT | PIPE_REJECT_REMOTE_CLIENTS,
                            PIPE_UNLIMITED_INSTANCES, kPipeBufferBytes, kPipeBufferBytes, 0, &attributes);
}

std::uint32_t PipeServer::Open() {
  if (!stop_ || !ended_) return ::GetLastError();
  PSECURITY_DESCRIPTOR descriptor = nullptr;
  if (!::ConvertStringSecurityDescriptorToSecurityDescriptorW(kPipeSddl, SDDL_REVISION_1, &descriptor, nullptr)) {
    return ::GetLastError();
  }
  securityDescriptor_.reset(descriptor);
  // Wine creates another instance despite the first-instance flag when the name is served
  // elsewhere, so a name that answers a wait is refused before creating anything.
  if (::WaitNamedPipeW(path_.c_str(), kServedProbeMs) || ::GetLastError() == ERROR_SEM_TIMEOUT) {
    LogSecondServer(path_, ERROR_ACCESS_DENIED);
    return ERROR_ACCESS_DENIED;
  }
  pending_.reset(CreateInstance(true));
  if (!pending_) {
    const DWORD error = ::GetLastError();
    if (error == ERROR_ACCESS_DENIED || error == ERROR_PIPE_BUSY) LogSecondServer(path_, error);
    return error;
  }
  try {
    listener_ = std::thread([this] { Listen(); });
  } catch (...) {
    pending_.reset();
    return ERROR_NOT_ENOUGH_MEMORY;
  }
  return 0;
}

std::size_t PipeServer::LiveSessions() {
  std::lock_guard hold(sessionsLock_);
  return static_cast<std::size_t>(
      std::count_if(sessions_.begin(), sessions_.end(), [](const std::shared_ptr<Session>& s) { return !s->Done(); }));
}

// The refused client reads a welcome that carries ERROR_PIPE_BUSY instead of an identity;
// closing without DisconnectNamedPipe leaves that frame readable after the close.
void PipeServer::Refuse(std::size_t live) {
  logging::Write(logging::kLevelWarning, L"pipelink::PipeServer::Listen",
                 L"%s refused a client: %u sessions open, the most it serves", path_.c_str(),
                 static_cast<unsigned>(live));
  PipeEnd end(pending_.release());
  if (!end.Ready()) return;
  FrameHeader refusal;
  refusal.id = kIdHello;
  refusal.flags = kFlagControl;
  refusal.result = ERROR_PIPE_BUSY;
  (void)end.Write(refusal, nullptr, 0, stop_.get(), kRefusalWriteMs);
}

void PipeServer::Close() {
  if (stop_) ::SetEvent(stop_.get());
  if (listener_.joinable()) listener_.join();
  pending_.reset();
  Reap(true);
}

void PipeServer::Reap(bool all) {
  std::vector<std::shared_ptr<Session>> finished;
  {
    std::lock_guard hold(sessionsLock_);
    auto keep = std::stable_partition(sessions_.begin(), sessions_.end(),
                                      [all](const std::shared_ptr<Session>& s) { return !all && !s->Done(); });
    finished.assign(std::make_move_iterator(keep), std::make_move_iterator(sessions_.end()));
    sessions_.erase(keep, sessions_.end());
  }
  finished.clear();  // joins their threads outside the lock
}

void PipeServer::Listen() {
  ky::unique_handle connectEvent(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
  if (!connectEvent) return;
  while (::WaitForSingleObject(stop_.get(), 0) != WAIT_OBJECT_0) {
    if (!pending_) {
      pending_.reset(CreateInstance(false));
      if (!pending_) {
        ::WaitForSingleObject(stop_.get(), kRetryCreateMs);
        continue;
      }
    }
    OVERLAPPED ov{};
    ov.hEvent = connectEvent.get();
    bool connected = ::ConnectNamedPipe(pending_.get(), &ov) != FALSE;
    DWORD error = connected ? 0 : ::GetLastError();
    if (error == ERROR_PIPE_CONNECTED) connected = true;
    if (!connected && error == ERROR_IO_PENDING) {
      HANDLE waits[3] = {connectEvent.get(), stop_.get(), ended_.get()};
      for (;;) {
        const DWORD wait = ::WaitForMultipleObjects(3, waits, FALSE, INFINITE);
        if (wait == WAIT_OBJECT_0 + 2) {
          Reap(false);
          continue;
        }
        if (wait != WAIT_OBJECT_0) {
          ::CancelIoEx(pending_.get(), &ov);
          DWORD ignored = 0;
          ::GetOverlappedResult(pending_.get(), &ov, &ignored, TRUE);
          return;
        }
        DWORD ignored = 0;
        connected = ::GetOverlappedResult(pending_.get(), &ov, &ignored, FALSE) != FALSE;
        break;
      }
    }
    if (!connected) {
      // The client went away before it was accepted: the instance is reused.
      ::DisconnectNamedPipe(pending_.get());
      continue;
    }
    if (const std::size_t live = LiveSessions(); live >= kMaxSessionsPerPipe) {
      Refuse(live);
      continue;
    }
    std::shared_ptr<Session> session;
    {
      std::lock_guard hold(sessionsLock_);
      const std::uint32_t id = nextClientId_++;
      if (nextClientId_ == 0) nextClientId_ = 1;
      session = std::make_shared<Session>(id, pending_.release(), *this);
      sessions_.push_back(session);
    }
    if (!session->Start()) Reap(false);
  }
}

std::shared_ptr<Session> PipeServer::Find(std::uint32_t clientId) {
  std::lock_guard hold(sessionsLock_);
  for (const auto& session : sessions_) {
    if (session->Id() == clientId && session->Welcomed() && !session->Done()) return session;
  }
  return nullptr;
}

std::uint32_t PipeServer::Broadcast(std::uint32_t id, const void* payload, std::uint32_t size, DWORD timeoutMs) {
  std::vector<std::shared_ptr<Session>> targets;
  {
    std::lock_guard hold(sessionsLock_);
    targets = sessions_;
  }
  std::uint32_t last = 0;
  FrameHeader header;
  header.id = id;
  for (const auto& session : targets) {
    // A client that has not had its welcome yet would take the broadcast for a broken one.
    if (session->Done() || !session->Welcomed()) continue;
    const std::uint32_t result = session->Send(header, payload, size, timeoutMs);
    if (result != 0) last = result;
  }
  return last;
}

std::uint32_t PipeServer::Post(std::uint32_t id, const void* payload, std::uint32_t size, std::uint32_t clientId) {
  try {
    std::shared_ptr<Session> session = Find(clientId);
    if (!session) return ERROR_NOT_FOUND;
    FrameHeader header;
    header.id = id;
    return session->Send(header, payload, size, kDefaultWriteTimeoutMs);
  } catch (...) {
    return ERROR_GEN_FAILURE;
  }
}

std::uint32_t PipeServer::ReplyError(const PipeMessage* request, std::uint32_t code) {
  try {
    if (request == nullptr || !ExpectsReply(*request)) return ERROR_INVALID_PARAMETER;
    std::shared_ptr<Session> session = Find(request->clientId);
    if (!session) return ERROR_NOT_FOUND;
    return session->Reply(request->sequence, request->id, code, nullptr, 0);
  } catch (...) {
    return ERROR_GEN_FAILURE;
  }
}

std::uint32_t PipeServer::ReplyData(const PipeMessage* request, std::uint32_t id, const void* payload, std::uint32_t size) {
  try {
    if (request == nullptr || !ExpectsReply(*request)) return ERROR_INVALID_PARAMETER;
    std::shared_ptr<Session> session = Find(request->clientId);
    if (!session) return ERROR_NOT_FOUND;
    return session->Reply(request->sequence, id, 0, payload, size);
  } catch (...) {
    return ERROR_GEN_FAILURE;
  }
}

std::uint32_t PipeServer::RegisterCallback(PipeCallback callback, void* context, std::uint32_t kind) {
  return callback_.Register(callback, context, kind);
}

std::uint32_t PipeServer::UnregisterCallback(std::uint32_t kind) { return callback_.Unregister(kind); }

// ---- ConnServer ----------------------------------------------------------------------

ConnServer::~ConnServer() {
  std::vector<std::shared_ptr<PipeServer>> pipes;
  {
    std::lock_guard hold(lock_);
    pipes.swap(pipes_);
  }
  for (auto& pipe : pipes) pipe->Close();
}

void* ConnServer::GetInterface(const GUID& iid) {
  return KyInterfaceFor<IConnServer>(this, iid, {lumera::ids::IKyBaseInterface, lumera::ids::PipeLinkServer});
}

std::uint32_t ConnServer::CreatePipeServer(const wchar_t* name, std::uint32_t, IConnPipeServer** out) {
  try {
    if (out == nullptr) return ERROR_INVALID_PARAMETER;
    *out = nullptr;
    const std::wstring path = PipePath(name);
    if (path.empty()) return ERROR_INVALID_NAME;
    std::lock_guard hold(lock_);
    // Open refuses a name served by another process; this covers the ones served by this one.
    for (const auto& existing : pipes_) {
      if (_wcsicmp(existing->Path().c_str(), path.c_str()) == 0) {
        LogSecondServer(path, ERROR_ACCESS_DENIED);
        return ERROR_ACCESS_DENIED;
      }
    }
    auto pipe = std::make_shared<PipeServer>(path);
    const std::uint32_t result = pipe->Open();
    if (result != 0) return result;
    pipes_.push_back(pipe);
    *out = pipe.get();
    return 0;
  } catch (...) {
    return ERROR_GEN_FAILURE;
  }
}

void ConnServer::ReleasePipeServer(IConnPipeServer* server) {
  if (const std::shared_ptr<PipeServer> pipe = TakeOwner(lock_, pipes_, server)) pipe->Close();
}

std::uint32_t ConnServer::Broadcast(std::uint32_t id, const void* payload, std::uint32_t size, std::uint32_t,
                                    std::uint32_t, std::uint32_t timeoutMs) {
  try {
    if (size > kMaxPayloadBytes || (payload == nullptr && size != 0)) return ERROR_INVALID_PARAMETER;
    std::vector<std::shared_ptr<PipeServer>> pipes;
    {
      std::lock_guard hold(lock_);
      pipes = pipes_;
    }
    std::uint32_t last = 0;
    for (const auto& pipe : pipes) {
      const std::uint32_t result = pipe->Broadcast(id, payload, size, timeoutMs == kNoTimeout ? INFINITE : timeoutMs);
      if (result != 0) last = result;
    }
    return last;
  } catch (...) {
    return ERROR_GEN_FAILURE;
  }
}

}  // namespace pipelink
