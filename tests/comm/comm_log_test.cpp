// The exact log messages of the boottimepipe server and client, read back from the
// capturing logcore.dll beside the test program.
#include <gtest/gtest.h>

#include "boottime/comm/boottime_comm.h"
#include "boottime/comm/boottime_comm_client.h"
#include "component_manager.h"
#include "fake_boottime.h"
#include "support/captured_log.h"

namespace {

struct NoManagerHost final : IServMain {
  const wchar_t* GetHostName() override { return L"test"; }
  IPlgComponentManager* GetComponentManager() override { return nullptr; }
  IEventQueue* GetEventQueue() override { return nullptr; }
};

class CommLog : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(log.available()) << "the capturing logcore.dll must sit beside the test program";
    log.clear();
  }
  testsupport::CapturedLog log;
};

TEST_F(CommLog, ServerNamesWhatTheHostDidNotGiveIt) {
  boottime::CBootTimeComm server;
  EXPECT_EQ(server.Init(nullptr), 0xFFFFFFFFu);
  EXPECT_TRUE(log.contains(L"IServMain is null!"));
  NoManagerHost host;
  EXPECT_EQ(server.Init(&host), 0xFFFFFFFFu);
  EXPECT_TRUE(log.contains(L"Component Manager is null!"));

  // A host without "boottime" and with connserver: only the plug-in is missing.
  host::HostConfig config;
  host::ComponentManager manager(config);
  EXPECT_EQ(server.Init(&manager), 0u);
  EXPECT_TRUE(log.contains(L"Error getting plugin: boottime"));
  EXPECT_FALSE(log.contains(L"Error getting connector server."));
  server.UnInit();

  boottime::CBootTimeComm bare;
  EXPECT_EQ(bare.Start(), 31u);
  EXPECT_TRUE(log.contains(L"Connector server is null."));
  manager.Shutdown();
}

TEST_F(CommLog, ClientWithoutServerLogsTheKeptMisspelling) {
  boottime::CBootTimeCommClient client;
  ASSERT_EQ(client.Init(nullptr), 0u);
  EXPECT_EQ(client.Start(), 2u) << "no pipe: the connector's file-not-found";
  EXPECT_TRUE(log.contains(L"Coould not connect comm server: boottimepipe"));
  std::uint32_t ms = 0;
  EXPECT_EQ(client.GetBootTime(&ms), 2u);
  EXPECT_TRUE(log.contains(L"sendMessage NpcMsgBootTimeGetBootTime failed 0xe9"));
  EXPECT_EQ(client.GetDiskSpeedAsync(), 233u);
  EXPECT_TRUE(log.contains(L"postMessage NpcMsgBootTimeGetDiskSpeed failed 0xe9"));
}

TEST_F(CommLog, QueriesAndAnswersAreLoggedOnBothSides) {
  host::HostConfig config;
  host::ComponentManager manager(config);
  testing_boottime::FakeBootTime fake;
  fake.impacts.push_back({7, 8, L"C:\\a.exe", 1, 2, 3, 4, 5});
  manager.RegisterModuleObject(L"boottime", &fake);
  {
    boottime::CBootTimeComm server;
    ASSERT_EQ(server.Init(&manager), 0u);
    ASSERT_EQ(server.Start(), 0u);
    boottime::CBootTimeCommClient client;
    ASSERT_EQ(client.Init(nullptr), 0u);
    ASSERT_EQ(client.Start(), 0u);

    std::uint32_t ms = 0;
    ASSERT_EQ(client.GetBootTime(&ms), 0u);
    EXPECT_TRUE(log.contains(L"GetBootTime err=0"));
    EXPECT_TRUE(log.contains(L"time=31337"));

    ky::List<boottime::ProcessImpact> impacts;
    const boottime::ProcessKey key{7, 8, L"a.exe"};
    ASSERT_EQ(client.GetBootImpact(&impacts, &key), 0u);
    EXPECT_TRUE(log.contains(L"GetBootImpact err=0"));
    EXPECT_TRUE(log.contains(L"err=0x0 process=[ppid=7 pid=8 name=a.exe cpuKernelTime=0"));
    EXPECT_TRUE(log.contains(
        L"process=[ppid=7 pid=8 name=C:\\a.exe cpuKernelTime=1 cpuUserTime=2 bytesRead=3 bytesWritten=4 bytesOther=5]"));

    boottime::DiskSpeed disk;
    ASSERT_EQ(client.GetDiskSpeed(&disk), 0u);
    EXPECT_TRUE(log.contains(L"diskSpeed=[min_hddUsage=1.5 max_hddUsage=97.25 average_hddUsage=42.125]"));

    fake.diskCode = 1168;
    EXPECT_EQ(client.GetDiskSpeed(&disk), 1168u);
    EXPECT_TRUE(log.contains(L"GetDiskSpeed err=1168"));
    EXPECT_TRUE(log.contains(L"sendMessage NpcMsgBootTimeGetDiskSpeed returns 0x490"));

    boottime::BootCounters total;
    ASSERT_EQ(client.GetTotalBootImpact(&total), 0u);
    EXPECT_TRUE(log.contains(L"process=[cpuKernelTime=31337 cpuUserTime=0"));

    pipelink::PipeMessage unknown{0, 0, 0, 77, nullptr, 0, 1};
    EXPECT_EQ(boottime::CBootTimeCommClient::NpcCallback(&client, &unknown), 31u);
    EXPECT_TRUE(log.contains(L"ERROR_GEN_FAILURE"));
    client.Stop();
    client.UnInit();
    server.Stop();
    server.UnInit();
  }
  manager.UnregisterModuleObject(L"boottime");
  manager.Shutdown();
}

}  // namespace
