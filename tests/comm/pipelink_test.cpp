// pipelink.dll over real named pipes: replies, posts, broadcasts, time-outs and hostile clients.
#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <aclapi.h>
#include <sddl.h>

#include "pipelink_fixture.h"
#include "support/captured_log.h"
#include "support/test_thread.h"

namespace {

using namespace testing_pipelink;
using pipelink::PipeMessage;

constexpr DWORD kWaitMs = 5000;

// Records arriving messages and answers synchronous ones by id.
struct Server {
  static constexpr std::uint32_t kEcho = 1, kFail = 2, kNoReply = 3, kBlock = 4;
  pipelink::IConnPipeServer* pipe = nullptr;
  std::atomic<std::uint32_t> lastSender{0};
  ky::unique_handle release{::CreateEventW(nullptr, TRUE, FALSE, nullptr)};

  static std::uint32_t __cdecl Callback(void* context, const PipeMessage* m) {
    auto* self = static_cast<Server*>(context);
    self->lastSender = m->clientId;
    switch (m->id) {
      case kEcho:
        return self->pipe->ReplyData(m, 100 + m->id, m->payload, m->size);
      case kFail:
        return self->pipe->ReplyError(m, 1234);
      case kBlock:
        ::WaitForSingleObject(self->release.get(), 10000);
        return 0;
      default:
        return 31;
    }
  }
};

class PipeLink : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(lib.Ready()) << "pipelink.dll must sit beside the test program";
    name = UniqueName(::testing::UnitTest::GetInstance()->current_test_info()->name());
    ASSERT_EQ(lib.Server()->CreatePipeServer(name.c_str(), 0, &server.pipe), 0u);
    ASSERT_EQ(server.pipe->RegisterCallback(&Server::Callback, &server, pipelink::kCallbackMessages), 0u);
  }
  void TearDown() override {
    for (auto* c : clients) lib.Client()->Close(c);
    if (server.pipe) lib.Server()->ReleasePipeServer(server.pipe);
  }
  // Connected until the test ends.
  pipelink::IConnPipeClient* Connect() {
    pipelink::IConnPipeClient* c = nullptr;
    EXPECT_EQ(lib.Client()->Connect(name.c_str(), 0, 0, kWaitMs, &c), 0u);
    if (c) clients.push_back(c);
    return c;
  }

  Library lib;
  Server server;
  std::wstring name;
  std::vector<pipelink::IConnPipeClient*> clients;
};

TEST_F(PipeLink, SendGetsDataErrorOrTheCallbacksStatusUpToTheLargestPayload) {
  pipelink::IConnPipeClient* c = Connect();
  ASSERT_NE(c, nullptr);
  const std::uint8_t data[] = {1, 2, 3};
  PipeMessage* reply = nullptr;
  ASSERT_EQ(c->Send(Server::kEcho, data, 3, &reply, 0, kWaitMs), 0u);
  ASSERT_NE(reply, nullptr);
  EXPECT_EQ(reply->id, 101u);
  EXPECT_EQ(reply->result, 0u);
  ASSERT_EQ(reply->size, 3u);
  EXPECT_EQ(std::vector<std::uint8_t>(reply->payload, reply->payload + 3), std::vector<std::uint8_t>(data, data + 3));
  c->FreeReply(reply);
  EXPECT_EQ(server.lastSender.load(), c->ClientId()) << "the server sees the id it gave this client";

  ASSERT_EQ(c->Send(Server::kFail, nullptr, 0, &reply, 0, kWaitMs), 0u);
  EXPECT_EQ(reply->result, 1234u) << "an error reply carries the code";
  c->FreeReply(reply);

  ASSERT_EQ(c->Send(Server::kNoReply, nullptr, 0, &reply, 0, kWaitMs), 0u);
  EXPECT_EQ(reply->result, 31u) << "a callback that does not reply answers with its status";
  c->FreeReply(reply);

  // The largest payload round trips; one byte more is refused.
  std::vector<std::uint8_t> big(pipelink::kMaxPayloadBytes);
  for (std::size_t i = 0; i < big.size(); ++i) big[i] = static_cast<std::uint8_t>(i * 7);
  ASSERT_EQ(c->Send(Server::kEcho, big.data(), static_cast<std::uint32_t>(big.size()), &reply, 0, kWaitMs), 0u);
  ASSERT_EQ(reply->size, big.size());
  EXPECT_EQ(std::memcmp(reply->payload, big.data(), big.size()), 0);
  c->FreeReply(reply);
  big.push_back(0);
  EXPECT_EQ(c->Post(Server::kEcho, big.data(), static_cast<std::uint32_t>(big.size()), 0),
            static_cast<std::uint32_t>(ERROR_INVALID_PARAMETER));
}

TEST_F(PipeLink, PostReachesOneClientAndBroadcastReachesEveryClient) {
  Inbox inboxes[3];
  pipelink::IConnPipeClient* connected[3] = {};
  for (int i = 0; i < 3; ++i) {
    connected[i] = Connect();
    ASSERT_NE(connected[i], nullptr);
    ASSERT_EQ(connected[i]->RegisterCallback(&Inbox::Callback, &inboxes[i], pipelink::kCallbackMessages), 0u);
  }
  // A post from each client makes sure the server has accepted all three.
  for (auto* c : connected) ASSERT_EQ(c->Post(77, nullptr, 0, 0), 0u);
  const std::uint32_t value = 5;
  ASSERT_EQ(server.pipe->Post(42, &value, 4, connected[1]->ClientId()), 0u);
  ASSERT_TRUE(inboxes[1].Wait());
  EXPECT_EQ(inboxes[1].lastId.load(), 42u);
  EXPECT_EQ(server.pipe->Post(42, &value, 4, 0xABCDEF), static_cast<std::uint32_t>(ERROR_NOT_FOUND));

  ASSERT_EQ(lib.Server()->Broadcast(20, &value, 4, 0, 0, pipelink::kNoTimeout), 0u);
  for (int i = 0; i < 3; ++i) {
    ASSERT_TRUE(inboxes[i].Wait()) << "client " << i;
    EXPECT_EQ(inboxes[i].lastId.load(), 20u) << "client " << i;
  }
  EXPECT_EQ(inboxes[0].count.load(), 1) << "the post went to client 1 only";
  for (auto* c : connected) c->UnregisterCallback(pipelink::kCallbackMessages);  // the inboxes go now
}

TEST_F(PipeLink, EveryClientConnectsWhileTheServerBroadcastsWithoutPause) {
  constexpr int kClients = 60;
  testsupport::Event stop;
  std::atomic<int> broadcasts{0};
  // One broadcast a millisecond: a busier loop only starves the connections of the wineserver.
  testsupport::TestThread broadcaster([&] {
    const std::uint32_t value = 7;
    do {
      (void)lib.Server()->Broadcast(20, &value, 4, 0, 0, kWaitMs);
      ++broadcasts;
    } while (!stop.waitFor(1));
  });
  struct StopOnExit {
    testsupport::Event& stop;
    ~StopOnExit() { stop.set(); }
  } stopOnExit{stop};
  // The welcome must come first even when a broadcast is being written as the client arrives.
  for (int i = 0; i < kClients; ++i) {
    pipelink::IConnPipeClient* c = nullptr;
    ASSERT_EQ(lib.Client()->Connect(name.c_str(), 0, 0, kWaitMs, &c), 0u) << "client " << i;
    lib.Client()->Close(c);
    RawPipe raw(name);
    ASSERT_TRUE(raw.Open()) << "raw client " << i;
    std::vector<std::uint8_t> first;
    ASSERT_EQ(raw.Read(first, kWaitMs), 0u) << "raw client " << i;
    ASSERT_GE(first.size(), pipelink::kFrameHeaderBytes);
    std::uint32_t flags = 0, id = 0;
    std::memcpy(&id, first.data() + 16, 4);
    std::memcpy(&flags, first.data() + 20, 4);
    EXPECT_EQ(id, pipelink::kIdHello) << "raw client " << i;
    EXPECT_NE(flags & pipelink::kFlagControl, 0u) << "raw client " << i;
  }
  stop.set();
  ASSERT_TRUE(broadcaster.join(testsupport::kLongWait));
  EXPECT_GT(broadcasts.load(), kClients) << "the broadcasts overlapped the connections";
}

TEST_F(PipeLink, SendTimesOutWhenTheServerDoesNotAnswerAndTheConnectionStaysUsable) {
  pipelink::IConnPipeClient* c = Connect();
  ASSERT_NE(c, nullptr);
  PipeMessage* reply = nullptr;
  EXPECT_EQ(c->Send(Server::kBlock, nullptr, 0, &reply, 0, 200), static_cast<std::uint32_t>(WAIT_TIMEOUT));
  EXPECT_EQ(reply, nullptr);
  ::SetEvent(server.release.get());
  ASSERT_EQ(c->Send(Server::kEcho, nullptr, 0, &reply, 0, kWaitMs), 0u) << "the late reply is dropped, not delivered here";
  EXPECT_EQ(reply->id, 101u);
  c->FreeReply(reply);
}

TEST_F(PipeLink, MalformedFramesDropOnlyTheirSender) {
  pipelink::IConnPipeClient* good = Connect();
  ASSERT_NE(good, nullptr);
  struct Case {
    const char* what;
    std::function<std::vector<std::uint8_t>(std::uint32_t)> frame;
  } cases[] = {
      {"shorter than a header", [](std::uint32_t) { return std::vector<std::uint8_t>(31, 0xA5); }},
      {"wrong magic", [&](std::uint32_t id) { return Frame(id, 1, 0, 1, {}, 0x12345678); }},
      {"size larger than sent", [&](std::uint32_t id) { auto f = Frame(id, 1, 0, 1, {1, 2, 3}); f.pop_back(); return f; }},
      {"unknown flag", [&](std::uint32_t id) { return Frame(id, 1, 0x80, 1, {}); }},
      {"another client's id", [&](std::uint32_t id) { return Frame(id + 1000, 1, 0, 1, {}); }},
      {"control frame", [&](std::uint32_t id) { return Frame(id, 1, pipelink::kFlagControl, 1, {}); }},
      {"beyond the largest frame", [&](std::uint32_t id) { return Frame(id, 1, 0, 1, std::vector<std::uint8_t>(pipelink::kMaxFrameBytes)); }},
  };
  for (const Case& c : cases) {
    RawPipe raw(name);
    ASSERT_TRUE(raw.Open()) << c.what;
    const std::uint32_t id = raw.ReadHello();
    ASSERT_NE(id, 0u) << c.what;
    (void)raw.Write(c.frame(id));
    std::vector<std::uint8_t> answer;
    const DWORD read = raw.Read(answer, kWaitMs);
    EXPECT_TRUE(read == ERROR_BROKEN_PIPE || read == ERROR_PIPE_NOT_CONNECTED) << c.what << ": read gave " << read;

    PipeMessage* reply = nullptr;
    ASSERT_EQ(good->Send(Server::kEcho, nullptr, 0, &reply, 0, kWaitMs), 0u) << "after " << c.what;
    good->FreeReply(reply);
  }
}

TEST_F(PipeLink, OneNameOneServerAndReleaseDisconnectsClients) {
  testsupport::CapturedLog log;
  pipelink::IConnPipeServer* second = nullptr;
  EXPECT_NE(lib.Server()->CreatePipeServer(name.c_str(), 0, &second), 0u);
  EXPECT_EQ(second, nullptr);
  EXPECT_EQ(log.count(L"is already served: a second server is refused"), 1u);
  EXPECT_EQ(lib.Server()->CreatePipeServer(L"bad\\name", 0, &second), static_cast<std::uint32_t>(ERROR_INVALID_NAME));

  pipelink::IConnPipeClient* c = Connect();
  ASSERT_NE(c, nullptr);
  lib.Server()->ReleasePipeServer(server.pipe);
  server.pipe = nullptr;
  PipeMessage* reply = nullptr;
  const std::uint32_t sent = c->Send(Server::kEcho, nullptr, 0, &reply, 0, kWaitMs);
  EXPECT_NE(sent, 0u) << "a released pipe answers nothing";
  EXPECT_NE(sent, static_cast<std::uint32_t>(WAIT_TIMEOUT)) << "the client learns at once that the pipe is gone";

  pipelink::IConnPipeClient* none = nullptr;
  EXPECT_EQ(lib.Client()->Connect(name.c_str(), 0, 0, 100, &none), static_cast<std::uint32_t>(ERROR_FILE_NOT_FOUND));
  EXPECT_EQ(none, nullptr);
}

// The cap is on sessions held at once: the ones over it are welcomed with their refusal and
// logged, the ones held are still answered, and a freed session makes room for a new client.
TEST_F(PipeLink, ClientsOverTheSessionCapAreRefusedWithALogLineWhileHeldSessionsAreAnswered) {
  testsupport::CapturedLog log;
  constexpr std::uint32_t kOver = 3;
  std::vector<std::unique_ptr<RawPipe>> held;
  std::vector<std::uint32_t> heldIds;
  for (std::uint32_t i = 0; i < pipelink::kMaxSessionsPerPipe; ++i) {
    held.push_back(std::make_unique<RawPipe>(name));
    ASSERT_TRUE(held.back()->Open()) << "session " << i;
    heldIds.push_back(held.back()->ReadHello());
    ASSERT_NE(heldIds.back(), 0u) << "session " << i << " under the cap was refused";
  }
  for (std::uint32_t i = 0; i < kOver; ++i) {
    RawPipe over(name);
    ASSERT_TRUE(over.Open());
    std::uint32_t result = 0;
    EXPECT_EQ(over.ReadHello(&result), 0u) << "client " << i << " over the cap got an identity";
    EXPECT_EQ(result, static_cast<std::uint32_t>(ERROR_PIPE_BUSY));
    std::vector<std::uint8_t> after;
    EXPECT_EQ(over.Read(after, kWaitMs), static_cast<DWORD>(ERROR_BROKEN_PIPE)) << "a refused client stays connected";
  }
  EXPECT_EQ(log.count(L"refused a client: 64 sessions open"), kOver);
  pipelink::IConnPipeClient* refused = nullptr;
  EXPECT_EQ(lib.Client()->Connect(name.c_str(), 0, 0, kWaitMs, &refused), static_cast<std::uint32_t>(ERROR_PIPE_BUSY));
  EXPECT_EQ(refused, nullptr);

  RawPipe& last = *held.back();
  ASSERT_EQ(last.Write(Frame(heldIds.back(), Server::kEcho, pipelink::kFlagReplyExpected, 7, {1, 2})), 0u);
  std::vector<std::uint8_t> reply;
  ASSERT_EQ(last.Read(reply, kWaitMs), 0u) << "a held session is no longer answered";
  EXPECT_EQ(reply.size(), pipelink::kFrameHeaderBytes + 2);

  held.front().reset();
  EXPECT_TRUE(testsupport::WaitUntil([&] {
    pipelink::IConnPipeClient* c = nullptr;
    if (lib.Client()->Connect(name.c_str(), 0, 0, kWaitMs, &c) != 0) return false;
    clients.push_back(c);
    return true;
  }, kWaitMs)) << "a freed session did not make room";
}

// Under Wine every process runs as one account; a test process that does not stand for
// LocalSystem (staged below) is what a user's process is on Windows.
TEST(PipeLinkServerAccount, ClientsRefuseAServerNotRunningAsLocalSystemAndUsersCannotMakeInstances) {
  testsupport::CapturedLog log;
  Library lib(false);
  ASSERT_TRUE(lib.Ready());
  const std::wstring name = UniqueName("impostor");
  pipelink::IConnPipeServer* pipe = nullptr;
  ASSERT_EQ(lib.Server()->CreatePipeServer(name.c_str(), 0, &pipe), 0u);
  Inbox inbox;
  ASSERT_EQ(pipe->RegisterCallback(&Inbox::Callback, &inbox, pipelink::kCallbackMessages), 0u);

  pipelink::IConnPipeClient* client = nullptr;
  EXPECT_EQ(lib.Client()->Connect(name.c_str(), 0, 0, kWaitMs, &client), static_cast<std::uint32_t>(ERROR_ACCESS_DENIED));
  EXPECT_EQ(client, nullptr);
  EXPECT_EQ(log.count(L"not LocalSystem: connection refused"), 1u);
  EXPECT_FALSE(inbox.Wait(100)) << "the client spoke to a server it refused";

  {
    const lumera::dev::LocalSystemStandIn serviceAccount;
    EXPECT_EQ(lib.Client()->Connect(name.c_str(), 0, 0, kWaitMs, &client), 0u) << "the same server as LocalSystem";
    if (client != nullptr) lib.Client()->Close(client);
  }

  // The access list the pipe carries (stored by Wine, enforced only by Windows): users connect,
  // read and write, and nothing of GENERIC_WRITE's FILE_CREATE_PIPE_INSTANCE.
  RawPipe raw(name);
  ASSERT_TRUE(raw.Open());
  PACL dacl = nullptr;
  PSECURITY_DESCRIPTOR descriptor = nullptr;
  wchar_t* text = nullptr;
  if (::GetSecurityInfo(raw.Handle(), SE_KERNEL_OBJECT, DACL_SECURITY_INFORMATION, nullptr, nullptr, &dacl, nullptr,
                        &descriptor) == ERROR_SUCCESS) {
    ::ConvertSecurityDescriptorToStringSecurityDescriptorW(descriptor, SDDL_REVISION_1, DACL_SECURITY_INFORMATION,
                                                           &text, nullptr);
  }
  ky::unique_local ownedText(text);
  ky::unique_local ownedDescriptor(descriptor);
  ASSERT_NE(text, nullptr) << "the pipe's access list could not be read back";
  EXPECT_STREQ(text, L"D:P(A;;GA;;;SY)(A;;GA;;;BA)(A;;0x12018b;;;IU)");
  EXPECT_EQ(pipelink::kClientPipeAccess & FILE_CREATE_PIPE_INSTANCE, 0u);
  lib.Server()->ReleasePipeServer(pipe);
}

// A name another process already serves is refused rather than shared: a second server would
// otherwise wait unnoticed beside the first and take some of its clients.
TEST(PipeLinkFirstInstance, NameServedElsewhereIsRefused) {
  Library lib;
  ASSERT_TRUE(lib.Ready());
  const std::wstring name = UniqueName("first-instance");
  const std::wstring path = L"\\\\.\\pipe\\" + name;
  for (const DWORD instances : {DWORD{PIPE_UNLIMITED_INSTANCES}, DWORD{1}}) {
    SCOPED_TRACE(instances);
    ky::unique_handle foreign(::CreateNamedPipeW(path.c_str(), PIPE_ACCESS_DUPLEX, PIPE_TYPE_MESSAGE | PIPE_READMODE_MESSAGE,
                                                 instances, 4096, 4096, 0, nullptr));
    ASSERT_TRUE(foreign.valid()) << ::GetLastError();
    testsupport::CapturedLog log;
    pipelink::IConnPipeServer* second = nullptr;
    EXPECT_EQ(lib.Server()->CreatePipeServer(name.c_str(), 0, &second), static_cast<std::uint32_t>(ERROR_ACCESS_DENIED));
    EXPECT_EQ(second, nullptr);
    EXPECT_EQ(log.count(L"is already served: a second server is refused"), 1u);
    if (second) lib.Server()->ReleasePipeServer(second);
  }
  pipelink::IConnPipeServer* served = nullptr;
  EXPECT_EQ(lib.Server()->CreatePipeServer(name.c_str(), 0, &served), 0u) << "the name is free again";
  if (served) lib.Server()->ReleasePipeServer(served);
}

}  // namespace
