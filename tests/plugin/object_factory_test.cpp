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

}  // namespace
