// The "boottimepipe" server and client over a real pipe, with the host's real component
// manager and connector plug-ins and a fake boot-time plug-in.
#include <gtest/gtest.h>

#include <functional>
#include <mutex>
#include <random>
#include <tuple>

#include "boottime/comm/boottime_comm.h"
#include "boottime/comm/boottime_comm_client.h"
#include "boottime/comm/messages.h"
#include "boottime/comm/payload.h"
#include "component_manager.h"
#include "fake_boottime.h"
#include "pipelink_fixture.h"
#include "support/captured_log.h"
#include "support/fake_host.h"

namespace {

using boottime::CBootTimeComm;
using boottime::CBootTimeCommClient;
using testing_boottime::FakeBootTime;
constexpr DWORD kWaitMs = 5000;

// Collects asynchronous answers and broadcasts.
struct Observer : boottime::IBootTimeResponse, boottime::IBootTimeEvents {
  std::mutex lock;
  std::uint32_t code = 0xDEAD, time = 0, analysed = 0;
  boottime::BootCounters total;
  std::vector<boottime::ProcessImpact> impacts;
  boottime::DiskSpeed disk;
  ky::unique_handle answered{::CreateEventW(nullptr, FALSE, FALSE, nullptr)};

  template <class Fn>
  void Done(std::uint32_t c, Fn&& keep) {
    {
      std::lock_guard hold(lock);
      code = c;
      keep();
    }
    ::SetEvent(answered.get());
  }
  bool Wait() { return ::WaitForSingleObject(answered.get(), kWaitMs) == WAIT_OBJECT_0; }
  void OnGetBootTime(std::uint32_t c, std::uint32_t ms) override { Done(c, [&] { time = ms; }); }
  void OnGetTotalBootImpact(std::uint32_t c, const boottime::BootCounters& t) override { Done(c, [&] { total = t; }); }
  void OnGetBootImpact(std::uint32_t c, const ky::IList<boottime::ProcessImpact>& list) override {
    Done(c, [&] { impacts = ky::ToVector(list); });
  }
  void OnGetDiskSpeed(std::uint32_t c, const boottime::DiskSpeed& d) override { Done(c, [&] { disk = d; }); }
  void OnGetBootHistory(std::uint32_t c, const ky::IList<std::string>& list) override {
    Done(c, [&] { history = ky::ToVector(list); });
  }
  std::vector<std::string> history;
  void OnDataAnalysed(std::uint32_t value) override { Done(code, [&] { analysed = value; }); }
};

class BootTimePipe : public ::testing::Test {
 protected:
  void SetUp() override {
    for (std::uint64_t i = 0; i < 500; ++i) {
      fake.impacts.push_back({4, 100 + i, L"C:\\Apps\\app" + std::to_wstring(i) + L".exe", 1, 2, 3, 4, static_cast<std::uint32_t>(i)});
    }
    manager.RegisterModuleObject(L"boottime", &fake);
    ASSERT_EQ(server.Init(&manager), 0u);
    ASSERT_EQ(server.Start(), 0u) << "the pipe server needs the host's connserver and pipelink.dll";
    EXPECT_EQ(fake.ListenerCount(), 1u) << "the server listens to the plug-in";
    ASSERT_EQ(client.Init(nullptr), 0u);
    ASSERT_EQ(client.Start(), 0u);
    ASSERT_EQ(client.AddResponseObserver(&observer), 0u);
    ASSERT_TRUE(log.available()) << "the capturing logcore.dll must sit beside the test program";
    log.clear();
  }
  void TearDown() override {
    client.Stop();
    client.UnInit();
    server.Stop();
    EXPECT_EQ(fake.ListenerCount(), 0u) << "Stop leaves the plug-in's listeners";
    server.UnInit();
    EXPECT_EQ(manager.OutstandingCount(L"connserver"), 0) << "UnInit gives connserver back";
    manager.UnregisterModuleObject(L"boottime");
    manager.Shutdown();
  }

  host::HostConfig config;
  host::ComponentManager manager{config};
  FakeBootTime fake;
  CBootTimeComm server;
  CBootTimeCommClient client;
  Observer observer;
  testsupport::CapturedLog log;
};

TEST_F(BootTimePipe, SynchronousQueriesCarryThePluginsAnswersOrItsFailureCodeAndAreLoggedOnBothSides) {
  std::uint32_t ms = 0;
  ASSERT_EQ(client.GetBootTime(&ms), 0u);
  EXPECT_EQ(ms, 31337u);
  EXPECT_TRUE(log.contains(L"GetBootTime err=0"));
  EXPECT_TRUE(log.contains(L"time=31337"));

  ky::List<boottime::ProcessImpact> impacts;
  const boottime::ProcessKey key{7, 8, L"a.exe"};
  ASSERT_EQ(client.GetBootImpact(&impacts, &key), 0u);
  ASSERT_EQ(impacts.Count(), 500u);
  EXPECT_EQ(impacts.Items()[499].name, L"C:\\Apps\\app499.exe");
  EXPECT_EQ(impacts.Items()[499].other, 499u);
  EXPECT_EQ(fake.LastKey().pid, 8u);
  EXPECT_EQ(fake.LastKey().name, L"a.exe");
  EXPECT_TRUE(log.contains(L"GetBootImpact err=0"));
  EXPECT_TRUE(log.contains(L"err=0x0 process=[ppid=7 pid=8 name=a.exe cpuKernelTime=0"));
  EXPECT_TRUE(log.contains(L"process=[ppid=4 pid=599 name=C:\\Apps\\app499.exe cpuKernelTime=1 cpuUserTime=2 bytesRead=3 "
                           L"bytesWritten=4 bytesOther=499]"));

  fake.impacts.clear();
  ky::List<boottime::ProcessImpact> none;
  ASSERT_EQ(client.GetBootImpact(&none, &key), 0u);
  EXPECT_EQ(none.Count(), 0u);

  boottime::DiskSpeed disk;
  ASSERT_EQ(client.GetDiskSpeed(&disk), 0u);
  EXPECT_EQ(std::tie(disk.maximum, disk.average), std::make_tuple(97.25, 42.125));
  EXPECT_TRUE(log.contains(L"diskSpeed=[min_hddUsage=1.5 max_hddUsage=97.25 average_hddUsage=42.125]"));

  boottime::BootCounters total{9, 9, 9, 9, 9};
  ASSERT_EQ(client.GetTotalBootImpact(&total), 0u);
  EXPECT_EQ(std::tie(total.kernel, total.user, total.other), std::make_tuple(31337u, 9u, 9u))
      << "the total is asked for with the boot-time query and fills only the kernel field";
  EXPECT_TRUE(log.contains(L"process=[cpuKernelTime=31337 cpuUserTime=9"));

  fake.bootTimeCode = 1;
  fake.impactCode = 2;
  fake.diskCode = 1168;
  ms = 77;
  EXPECT_EQ(client.GetBootTime(&ms), 1u);
  EXPECT_EQ(ms, 77u);
  EXPECT_EQ(client.GetTotalBootImpact(&total), 1u) << "it fails with the boot-time query's code";
  EXPECT_EQ(client.GetBootImpact(&impacts, &key), 2u);
  EXPECT_EQ(client.GetDiskSpeed(&disk), 1168u);
  EXPECT_TRUE(log.contains(L"GetDiskSpeed err=1168"));
  EXPECT_TRUE(log.contains(L"sendMessage NpcMsgBootTimeGetDiskSpeed returns 0x490"));
}

// The history query: the newest records asked for, oldest first, as many as fit one reply.
TEST_F(BootTimePipe, TheHistoryQueryCarriesTheNewestRecordsThatFitAndFailsWithErrorMessage14) {
  for (int i = 0; i < 100; ++i) fake.history.push_back(std::to_string(i) + std::string(12 * 1024, 'r'));
  ky::List<std::string> records;
  ASSERT_EQ(client.GetBootHistory(3, &records), 0u);
  ASSERT_EQ(records.Count(), 3u);
  EXPECT_EQ(records.Items()[0], fake.history[97]);
  EXPECT_EQ(records.Items()[2], fake.history[99]);
  records.Clear();
  ASSERT_EQ(client.GetBootHistory(0, &records), 0u);
  ASSERT_LT(records.Count(), 100u) << "100 records of 12 KB do not fit one reply";
  ASSERT_GT(records.Count(), 50u);
  EXPECT_EQ(records.Items().back(), fake.history.back()) << "the oldest are the ones left out";
  EXPECT_TRUE(log.contains(L"GetBootHistory err=0"));

  ASSERT_EQ(client.GetBootHistoryAsync(2), 0u);
  ASSERT_TRUE(observer.Wait());
  EXPECT_EQ(observer.code, 0u);
  EXPECT_EQ(observer.history, std::vector<std::string>(fake.history.end() - 2, fake.history.end()));

  fake.historyCode = 1168;
  EXPECT_EQ(client.GetBootHistory(3, &records), 1168u);
  ASSERT_EQ(client.GetBootHistoryAsync(3), 0u);
  ASSERT_TRUE(observer.Wait());
  EXPECT_EQ(observer.code, 1168u);
  EXPECT_TRUE(observer.history.empty());
}

// Posted queries answer the observers; a failing one comes back as its error message (ids
// 10-14) with the plug-in's code in 4 bytes. Unknown ids and unreadable requests get 31.
TEST_F(BootTimePipe, PostedQueriesAnswerTheObserversOrFailWithErrorMessages) {
  const boottime::ProcessKey key{0, 0, L""};
  const std::function<std::uint32_t()> post[] = {
      [&] { return client.GetBootTimeAsync(); }, [&] { return client.GetTotalBootImpactAsync(); },
      [&] { return client.GetBootImpactAsync(&key); }, [&] { return client.GetDiskSpeedAsync(); },
      [&] { return client.GetBootHistoryAsync(3); }};
  for (const auto& query : post) {
    ASSERT_EQ(query(), 0u);
    ASSERT_TRUE(observer.Wait());
    EXPECT_EQ(observer.code, 0u);
  }
  EXPECT_EQ(observer.time, 31337u);
  EXPECT_EQ(observer.total.other, 50u) << "the asynchronous form does ask for the total";
  EXPECT_EQ(observer.impacts.size(), 500u);
  EXPECT_EQ(observer.disk.minimum, 1.5);

  // The raw connection shows the wire.
  testing_pipelink::Library lib;
  ASSERT_TRUE(lib.Ready());
  testing_pipelink::Inbox wire;
  pipelink::IConnPipeClient* raw = nullptr;
  ASSERT_EQ(lib.Client()->Connect(L"boottimepipe", 0, 0, kWaitMs, &raw), 0u);
  ASSERT_EQ(raw->RegisterCallback(&testing_pipelink::Inbox::Callback, &wire, pipelink::kCallbackMessages), 0u);
  boottime::CPayloadWriter keyBytes;
  keyBytes.WriteProcessKey(boottime::ProcessKey{});
  fake.bootTimeCode = 1;
  fake.totalCode = 2;
  fake.impactCode = 3;
  fake.diskCode = 4;
  fake.historyCode = 5;
  const std::uint8_t count[] = {3, 0, 0, 0};
  for (std::uint32_t query = 1; query <= 5; ++query) {
    ASSERT_EQ(post[query - 1](), 0u);
    ASSERT_TRUE(observer.Wait());
    EXPECT_EQ(observer.code, query) << "query " << query;
    const std::uint8_t* request = query == 3 ? keyBytes.Data() : query == 5 ? count : nullptr;
    ASSERT_EQ(raw->Post(query, request, query == 3 ? keyBytes.Size() : query == 5 ? 4 : 0, 0), 0u);
    ASSERT_TRUE(wire.Wait()) << "query " << query;
    EXPECT_EQ(wire.lastId.load(), query + 9) << "query " << query;
    EXPECT_EQ(wire.lastSize.load(), 4u) << "query " << query;
    EXPECT_EQ(wire.lastCode.load(), query) << "query " << query;
  }

  pipelink::PipeMessage* reply = nullptr;
  ASSERT_EQ(raw->Send(99, nullptr, 0, &reply, 0, kWaitMs), 0u);
  EXPECT_EQ(reply->result, 31u) << "unknown id";
  raw->FreeReply(reply);
  const std::uint8_t shortKey[] = {1, 2, 3};
  ASSERT_EQ(raw->Send(boottime::msg::NpcMsgBootTimeGetBootImpact, shortKey, 3, &reply, 0, kWaitMs), 0u);
  EXPECT_EQ(reply->result, 31u) << "a process key that cannot be read";
  raw->FreeReply(reply);
  ASSERT_EQ(raw->Send(boottime::msg::NpcMsgBootTimeGetBootHistory, count, 2, &reply, 0, kWaitMs), 0u);
  EXPECT_EQ(reply->result, 31u) << "a count that cannot be read";
  raw->FreeReply(reply);
  lib.Client()->Close(raw);
}

TEST_F(BootTimePipe, EveryQueryNamesItsMessageWhenItFailsOnEitherSide) {
  CBootTimeComm second;
  ASSERT_EQ(second.Init(&manager), 0u);
  EXPECT_NE(second.Start(), 0u) << "the pipe already has its server";
  EXPECT_TRUE(log.contains(L"Could not register comm server: boottimepipe"));
  second.UnInit();
  ASSERT_EQ(client.GetTotalBootImpactAsync(), 0u);
  ASSERT_TRUE(observer.Wait());
  EXPECT_TRUE(log.contains(L"GetTotalBootImpact err=0"));

  std::uint32_t ms = 0;
  boottime::BootCounters total;
  ky::List<boottime::ProcessImpact> impacts;
  const boottime::ProcessKey key{};
  boottime::DiskSpeed disk;
  const struct {
    const wchar_t* name;
    std::function<std::uint32_t()> send, post;
  } queries[] = {
      {L"NpcMsgBootTimeGetBootTime", [&] { return client.GetBootTime(&ms); }, [&] { return client.GetBootTimeAsync(); }},
      {L"NpcMsgBootTimeGetTotalBootImpact", [&] { return client.GetTotalBootImpact(&total); },
       [&] { return client.GetTotalBootImpactAsync(); }},
      {L"NpcMsgBootTimeGetBootImpact", [&] { return client.GetBootImpact(&impacts, &key); },
       [&] { return client.GetBootImpactAsync(&key); }},
      {L"NpcMsgBootTimeGetDiskSpeed", [&] { return client.GetDiskSpeed(&disk); }, [&] { return client.GetDiskSpeedAsync(); }},
  };
  fake.bootTimeCode = 1;  // the total is asked for with the boot-time query
  fake.impactCode = 1;
  fake.diskCode = 1;
  for (const auto& q : queries) EXPECT_EQ(q.send(), 1u) << testing::PrintToString(q.name);
  client.Stop();
  for (const auto& q : queries) {
    EXPECT_EQ(q.send(), 2u) << testing::PrintToString(q.name);
    EXPECT_EQ(q.post(), 233u) << testing::PrintToString(q.name);
    for (const std::wstring& text :
         {L"sendMessage " + std::wstring(q.name) + L" returns 0x1", L"sendMessage " + std::wstring(q.name) + L" failed 0xe9",
          L"postMessage " + std::wstring(q.name) + L" failed 0xe9"}) {
      EXPECT_TRUE(log.contains(text)) << testing::PrintToString(text);
    }
  }
}

TEST_F(BootTimePipe, HostileClientsDisturbNeitherTheServerNorOtherClientsAndDataAnalysedReachesEveryClient) {
  Observer listeners[4];
  CBootTimeCommClient others[3];
  ASSERT_EQ(client.AddListener(&listeners[3]), 0u);
  for (int i = 0; i < 3; ++i) {
    ASSERT_EQ(others[i].Init(nullptr), 0u);
    ASSERT_EQ(others[i].Start(), 0u);
    ASSERT_EQ(others[i].AddListener(&listeners[i]), 0u);
    std::uint32_t ms = 0;
    ASSERT_EQ(others[i].GetBootTime(&ms), 0u) << "the server has accepted client " << i;
  }
  std::mt19937 random(99);
  for (int round = 0; round < 40; ++round) {
    testing_pipelink::RawPipe raw(L"boottimepipe");
    ASSERT_TRUE(raw.Open()) << "round " << round;
    const std::uint32_t id = raw.ReadHello();
    ASSERT_NE(id, 0u);
    std::vector<std::uint8_t> payload(random() % 64);
    for (auto& b : payload) b = static_cast<std::uint8_t>(random());
    auto frame = testing_pipelink::Frame(id, 1 + random() % 4, random() % 2, round, payload);
    switch (round % 4) {
      case 0: frame.resize(random() % frame.size()); break;           // truncated
      case 1: for (auto& b : frame) b = static_cast<std::uint8_t>(random()); break;  // noise
      case 2: break;  // well-formed header, random payload: a query with garbage
      case 3: frame[12] ^= 0x40; break;                                // lying size
    }
    if (!frame.empty()) (void)raw.Write(frame);
    std::uint32_t ms = 0;
    ASSERT_EQ(client.GetBootTime(&ms), 0u) << "round " << round;
    EXPECT_EQ(ms, 31337u);
  }
  fake.OnDataAnalysed(5);
  for (int i = 0; i < 4; ++i) {
    ASSERT_TRUE(listeners[i].Wait()) << "client " << i;
    EXPECT_EQ(listeners[i].analysed, 5u) << "client " << i;
  }
  client.RemoveListener(&listeners[3]);
}

// A server on "boottimepipe" that never answers: the client gives up after its 5000 ms.
TEST(BootTimeClient, ServerThatDoesNotAnswerInTimeFailsTheQueryWith2) {
  testing_pipelink::Library lib;
  ASSERT_TRUE(lib.Ready());
  pipelink::IConnPipeServer* pipe = nullptr;
  ASSERT_EQ(lib.Server()->CreatePipeServer(L"boottimepipe", 0, &pipe), 0u);
  ky::unique_handle release(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
  auto hang = [](void* context, const pipelink::PipeMessage*) -> std::uint32_t {
    ::WaitForSingleObject(static_cast<HANDLE>(context), 20000);
    return 0;
  };
  ASSERT_EQ(pipe->RegisterCallback(hang, release.get(), pipelink::kCallbackMessages), 0u);
  {
    CBootTimeCommClient client;
    ASSERT_EQ(client.Init(nullptr), 0u);
    ASSERT_EQ(client.Start(), 0u);
    std::uint32_t ms = 0;
    const ULONGLONG begin = ::GetTickCount64();
    EXPECT_EQ(client.GetBootTime(&ms), boottime::kStatusNoResults);
    EXPECT_GE(::GetTickCount64() - begin, 4500u) << "the client waits its full time-out";
    ::SetEvent(release.get());
  }
  lib.Server()->ReleasePipeServer(pipe);
}

TEST(BootTimeClient, EveryAnswerIsLoggedAndUnknownOrUnreadableOnesAreAcknowledgedWith31) {
  testsupport::CapturedLog log;
  CBootTimeCommClient client;
  Observer observer;
  ASSERT_EQ(client.AddResponseObserver(&observer), 0u);
  auto deliver = [&](std::uint32_t id, std::vector<std::uint8_t> payload) {
    pipelink::PipeMessage m{0, 0, static_cast<std::uint32_t>(payload.size()), id, payload.data(), 0, 1};
    return CBootTimeCommClient::NpcCallback(&client, &m);
  };
  EXPECT_EQ(deliver(55, {}), 31u);
  EXPECT_TRUE(log.contains(L"ERROR_GEN_FAILURE"));
  EXPECT_EQ(deliver(boottime::msg::NpcMsgBootTimeGetBootTime, {1, 2}), 31u);
  EXPECT_EQ(deliver(boottime::msg::NpcMsgBootTimeGetBootImpact, {5, 0, 0, 0}), 31u) << "count without entries";
  EXPECT_EQ(deliver(boottime::msg::NpcMsgBootTimeGetDiskSpeedError, {2, 0, 0, 0}), 0u);
  EXPECT_EQ(observer.code, 2u);
  EXPECT_EQ(deliver(boottime::msg::NpcMsgBootTimeGetBootTime, {0x10, 0x27, 0, 0}), 0u);
  EXPECT_EQ(observer.time, 10000u);

  // Errors and empty lists are logged too.
  struct Case {
    std::uint32_t id;
    std::vector<std::uint8_t> payload;
    const wchar_t* logged;
  } cases[] = {
      {boottime::msg::NpcMsgBootTimeGetBootTimeError, {5, 0, 0, 0}, L"err=0x5 time=0"},
      {boottime::msg::NpcMsgBootTimeGetTotalBootImpactError, {6, 0, 0, 0}, L"err=0x6 process=[cpuKernelTime=0"},
      {boottime::msg::NpcMsgBootTimeGetBootImpactError, {7, 0, 0, 0}, L"err=0x7 process=[]"},
      {boottime::msg::NpcMsgBootTimeGetDiskSpeedError, {8, 0, 0, 0}, L"err=0x8 diskSpeed=[min_hddUsage=0"},
      {boottime::msg::NpcMsgBootTimeGetBootImpact, {0, 0, 0, 0}, L"err=0x0 process=[]"},
      {boottime::msg::NpcMsgBootTimeGetBootTime, {9, 0, 0, 0}, L"err=0x0 time=9"},
  };
  for (const Case& c : cases) {
    log.clear();
    EXPECT_EQ(deliver(c.id, c.payload), 0u) << "message " << c.id;
    EXPECT_TRUE(log.contains(c.logged)) << "message " << c.id;
  }
}

// A server whose replies stop short: the client reads what is there and succeeds.
TEST(BootTimeClient, ShortRepliesAreReadAsFarAsTheyGoAndTheQueriesSucceed) {
  testsupport::CapturedLog log;
  testing_pipelink::Library lib;
  ASSERT_TRUE(lib.Ready());
  pipelink::IConnPipeServer* pipe = nullptr;
  ASSERT_EQ(lib.Server()->CreatePipeServer(L"boottimepipe", 0, &pipe), 0u);
  struct Replies {
    pipelink::IConnPipeServer* pipe;
    boottime::CPayloadWriter impacts;
    boottime::CPayloadWriter disk;
  } replies{pipe, {}, {}};
  replies.impacts.WriteU32(3);  // three announced, one whole entry and half of the next sent
  replies.impacts.WriteImpact({1, 2, L"a.exe", 3, 4, 5, 6, 7});
  replies.impacts.WriteU64(9);
  replies.disk.WriteF64(12.5);
  replies.disk.WriteU32(0);  // half of the maximum
  auto answer = [](void* context, const pipelink::PipeMessage* m) -> std::uint32_t {
    auto* r = static_cast<Replies*>(context);
    const std::uint8_t twoBytes[] = {0x10, 0x27};
    switch (m->id) {
      case boottime::msg::NpcMsgBootTimeGetBootImpact:
        return r->pipe->ReplyData(m, m->id, r->impacts.Data(), r->impacts.Size());
      case boottime::msg::NpcMsgBootTimeGetDiskSpeed:
        return r->pipe->ReplyData(m, m->id, r->disk.Data(), r->disk.Size());
      default:
        return r->pipe->ReplyData(m, m->id, twoBytes, 2);
    }
  };
  ASSERT_EQ(pipe->RegisterCallback(answer, &replies, pipelink::kCallbackMessages), 0u);
  {
    CBootTimeCommClient client;
    ASSERT_EQ(client.Init(nullptr), 0u);
    ASSERT_EQ(client.Start(), 0u);
    std::uint32_t ms = 77;
    EXPECT_EQ(client.GetBootTime(&ms), 0u);
    EXPECT_EQ(ms, 77u);
    EXPECT_TRUE(log.contains(L"time=77"));
    boottime::BootCounters total{1, 2, 3, 4, 5};
    EXPECT_EQ(client.GetTotalBootImpact(&total), 0u);
    EXPECT_EQ(std::tie(total.kernel, total.other), std::make_tuple(1u, 5u));
    ky::List<boottime::ProcessImpact> impacts;
    const boottime::ProcessKey key{};
    EXPECT_EQ(client.GetBootImpact(&impacts, &key), 0u);
    ASSERT_EQ(impacts.Count(), 1u) << "the whole entry is kept, the broken one is not";
    EXPECT_EQ(impacts.Items()[0].name, L"a.exe");
    EXPECT_EQ(impacts.Items()[0].other, 7u);
    boottime::DiskSpeed disk{1, 2, 3};
    EXPECT_EQ(client.GetDiskSpeed(&disk), 0u);
    EXPECT_EQ(std::tie(disk.minimum, disk.maximum, disk.average), std::make_tuple(12.5, 2.0, 3.0));
  }
  lib.Server()->ReleasePipeServer(pipe);
}


TEST(BootTimeServer, RefusesAndNamesWhatTheHostDidNotGiveIt) {
  testsupport::CapturedLog log;
  ASSERT_TRUE(log.available());
  CBootTimeComm server;
  EXPECT_EQ(server.Init(nullptr), 0xFFFFFFFFu);
  EXPECT_TRUE(log.contains(L"IServMain is null!"));
  testsupport::FakeHost host;
  host.withManager = false;
  EXPECT_EQ(server.Init(&host), 0xFFFFFFFFu);
  EXPECT_TRUE(log.contains(L"Component Manager is null!"));
  EXPECT_EQ(server.Start(), 31u);
  EXPECT_TRUE(log.contains(L"Connector server is null."));

  // A host without "boottime" and with connserver: only the plug-in is missing.
  host::HostConfig config;
  host::ComponentManager manager(config);
  EXPECT_EQ(server.Init(&manager), 0u);
  EXPECT_TRUE(log.contains(L"Error getting plugin: boottime"));
  EXPECT_FALSE(log.contains(L"Error getting connector server."));
  server.UnInit();
  manager.Shutdown();
}

TEST(BootTimeClient, WithoutServerLogsTheKeptMisspelling) {
  testsupport::CapturedLog log;
  ASSERT_TRUE(log.available());
  CBootTimeCommClient client;
  ASSERT_EQ(client.Init(nullptr), 0u);
  EXPECT_EQ(client.Start(), 2u) << "no pipe: the connector's file-not-found";
  EXPECT_TRUE(log.contains(L"Coould not connect comm server: boottimepipe"));
  std::uint32_t ms = 0;
  EXPECT_EQ(client.GetBootTime(&ms), 2u);
  EXPECT_TRUE(log.contains(L"sendMessage NpcMsgBootTimeGetBootTime failed 0xe9"));
  EXPECT_EQ(client.GetDiskSpeedAsync(), 233u);
  EXPECT_TRUE(log.contains(L"postMessage NpcMsgBootTimeGetDiskSpeed failed 0xe9"));
}

}  // namespace
