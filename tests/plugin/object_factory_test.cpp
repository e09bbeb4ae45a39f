// The module's exported factory, linked into the test program.
#include <gtest/gtest.h>

#include "lumera/boottime.h"
#include "lumera/interface_ids.h"
#include "plugin/object_factory.h"
#include "support/captured_log.h"

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

TEST(ObjectFactory, LogsTheNameOrNullptrOnEveryCall) {
  testsupport::CapturedLog log;
  ASSERT_TRUE(log.available());
  log.clear();
  void* object = nullptr;
  KyCreateObject(nullptr, &lumera::ids::IBootTime, &object);
  KyCreateObject(L"BootTimeComm", &lumera::ids::IBootTimeComm, &object);
  KyDestroyObject(L"BootTimeComm", object);
  EXPECT_EQ(log.count(L"obj name = nullptr"), 1u);
  EXPECT_EQ(log.count(L"obj name = BootTimeComm"), 2u);
  EXPECT_EQ(log.count(L"null instance"), 0u);
}

TEST(ObjectFactory, DestroyIgnoresUnknownNamesAndNullObjects) {
  testsupport::CapturedLog log;
  void* object = nullptr;
  ASSERT_EQ(KyCreateObject(L"boottime", &lumera::ids::IBootTime, &object), 0u);
  KyDestroyObject(L"unknown", object);
  // Still alive: the unknown name did nothing.
  auto* plugin = static_cast<boottime::IBootTime*>(object);
  std::uint32_t ms = 0;
  EXPECT_EQ(plugin->GetBootTime(&ms), boottime::kStatusNotYetKnown);
  log.clear();
  KyDestroyObject(L"boottime", nullptr);
  EXPECT_EQ(log.count(L"null instance"), 1u);
  KyDestroyObject(L"boottime", object);
}

TEST(ObjectFactory, ClientIsDestroyedThroughItsAsyncInterfaceToo) {
  void* object = nullptr;
  ASSERT_EQ(KyCreateObject(L"boottimecommclient", &lumera::ids::IBootTimeCommClientAsync, &object), 0u);
  void* sync = static_cast<IKyBaseInterface*>(object)->GetInterface(lumera::ids::IBootTimeCommClient);
  EXPECT_NE(sync, object) << "the two interfaces are different sub-objects";
  KyDestroyObject(L"boottimecommclient", object);
}

}  // namespace
