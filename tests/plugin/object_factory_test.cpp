// The module's exported factory, linked into the test program.
#include <gtest/gtest.h>

#include <algorithm>

#include "boottime/comm/boottime_comm_client.h"
#include "common/log.h"
#include "lumera/boottime.h"
#include "lumera/interface_ids.h"
#include "plugin/boottime_plugin.h"
#include "plugin/object_factory.h"
#include "support/captured_log.h"
#include "support/failing_allocation.h"

namespace {

const GUID kUnknownId = {0x12345678, 0x1234, 0x1234, {1, 2, 3, 4, 5, 6, 7, 8}};

TEST(ObjectFactory, NamesAreComparedWithoutCaseAndEachObjectAnswersItsIdentifiers) {
  struct Case {
    const wchar_t* name;
    GUID iid;
  } cases[] = {
      {L"BootTime", lumera::ids::IBootTime},
      {L"boottime", lumera::ids::IKyBaseInterface},
      {L"BOOTTIMECOMM", lumera::ids::IBootTimeComm},
      {L"boottimecomm", lumera::ids::IServPlugin},
      {L"BootTimeCommClient", lumera::ids::IBootTimeCommClient},
      {L"boottimecommclient", lumera::ids::IBootTimeCommClientAsync},
      {L"boottimecommclient", lumera::ids::IBootTime},
  };
  for (const Case& c : cases) {
    void* object = nullptr;
    ASSERT_EQ(KyCreateObject(c.name, &c.iid, &object), 0u) << c.name;
    ASSERT_NE(object, nullptr);
    auto* base = static_cast<IKyBaseInterface*>(object);
    EXPECT_EQ(base->GetInterface(c.iid), object) << c.name;
    KyDestroyObject(c.name, object);
  }
}

TEST(ObjectFactory, RejectsWhatItCannotMake) {
  void* object = reinterpret_cast<void*>(0x1);
  EXPECT_EQ(KyCreateObject(nullptr, &lumera::ids::IBootTime, &object), 13u);
  EXPECT_EQ(object, nullptr) << "a null name still clears the out pointer";
  EXPECT_EQ(KyCreateObject(L"boottime", &lumera::ids::IBootTime, nullptr), 13u);

  object = reinterpret_cast<void*>(0x1);
  EXPECT_EQ(KyCreateObject(L"startupmanager", &lumera::ids::IServPlugin, &object), 1168u);
  EXPECT_EQ(object, nullptr);

  // The plug-in does not answer the comm server's identifier: the fresh object is destroyed.
  object = reinterpret_cast<void*>(0x1);
  EXPECT_EQ(KyCreateObject(L"boottime", &lumera::ids::IBootTimeComm, &object), 1168u);
  EXPECT_EQ(object, nullptr);
  EXPECT_EQ(KyCreateObject(L"boottimecomm", &kUnknownId, &object), 1168u);
  EXPECT_EQ(object, nullptr);
}

TEST(ObjectFactory, LogsEveryCallAndDestroyIgnoresUnknownNamesAndNullObjects) {
  testsupport::CapturedLog log;
  ASSERT_TRUE(log.available());
  void* object = nullptr;
  KyCreateObject(nullptr, &lumera::ids::IBootTime, &object);
  EXPECT_EQ(log.count(L"obj name = nullptr"), 1u);
  ASSERT_EQ(KyCreateObject(L"BootTime", &lumera::ids::IBootTime, &object), 0u);
  KyDestroyObject(L"unknown", object);
  // Still alive: the unknown name did nothing.
  std::uint32_t ms = 0;
  EXPECT_EQ(static_cast<boottime::IBootTime*>(object)->GetBootTime(&ms), boottime::kStatusNotYetKnown);
  EXPECT_EQ(log.count(L"null instance"), 0u);
  KyDestroyObject(L"boottime", nullptr);
  EXPECT_EQ(log.count(L"null instance"), 1u);
  KyDestroyObject(L"BootTime", object);
  EXPECT_EQ(log.count(L"obj name = BootTime"), 2u);
  // Each export traces its entry and exit like every other operation.
  for (const wchar_t* function : {L"KyCreateObject", L"KyDestroyObject"}) {
    const auto entries = log.entriesFor(function);
    const std::size_t calls = function[2] == L'C' ? 2 : 3;
    EXPECT_EQ(log.count(std::wstring(L"-> ") + function), calls) << function;
    EXPECT_EQ(log.count(std::wstring(L"<- ") + function + L" ["), calls) << function;
    ASSERT_FALSE(entries.empty()) << function;
    EXPECT_EQ(entries.front().depthChange, 1u) << function;
    EXPECT_EQ(entries.back().depthChange, 0xFFFFu) << function;
  }
}

struct Observer final : boottime::IBootTimeEvents, boottime::IBootTimeResponse {
  void OnDataAnalysed(std::uint32_t) override {}
  void OnGetBootTime(std::uint32_t, std::uint32_t) override {}
  void OnGetTotalBootImpact(std::uint32_t, const boottime::BootCounters&) override {}
  void OnGetBootImpact(std::uint32_t, const ky::IList<boottime::ProcessImpact>&) override {}
  void OnGetDiskSpeed(std::uint32_t, const boottime::DiskSpeed&) override {}
};

TEST(ObjectFactory, AnAllocationFailureWhileAddingAnObserverComesBackAs31WithALogLine) {
  logging::LogRef keep;  // the log adapter is made before allocations fail
  testsupport::CapturedLog log;
  boottime::CBootTimePlugin plugin;
  boottime::CBootTimeCommClient client;
  Observer observer;
  std::uint32_t results[3] = {};
  {
    testsupport::FailAllocations fail;
    results[0] = plugin.AddListener(&observer);
    results[1] = client.AddListener(&observer);
    results[2] = client.AddResponseObserver(&observer);
  }
  EXPECT_EQ(results[0], 31u);
  EXPECT_EQ(results[1], 31u);
  EXPECT_EQ(results[2], 31u);
  EXPECT_EQ(log.count(L"exception: out of memory"), 3u);
  for (const wchar_t* where : {L"boottime::CBootTimePlugin::AddListener", L"boottime::CBootTimeCommClient::AddListener",
                               L"boottime::CBootTimeCommClient::AddResponseObserver"}) {
    EXPECT_GT(log.countUnder(where, L"exception: out of memory"), 0u) << testing::PrintToString(where);
  }
  EXPECT_EQ(plugin.AddListener(&observer), 0u) << "nothing was half-registered";
  EXPECT_EQ(client.AddResponseObserver(&observer), 0u);
  EXPECT_EQ(plugin.RemoveListener(&observer), 0u);
  EXPECT_EQ(client.RemoveResponseObserver(&observer), 0u);
}

}  // namespace
