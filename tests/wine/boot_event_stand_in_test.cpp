// The stand-in event log with its writer, as the module sees them: the module's own
// WinBootEvent binds the stand-in wevtapi.dll, skips the events of earlier boots in the
// store, and takes the one diagperf.exe writes once the staged user has logged on and the
// machine is idle.
#include <gtest/gtest.h>

#include <windows.h>
#include <winevt.h>

#include <cwchar>
#include <string>
#include <vector>

#include "boottime/boot_event_watch.h"
#include "common/boot_event_store.h"
#include "common/module_library.h"
#include "common/unique_handle.h"
#include "lumera_dev/console_session.h"
#include "support/captured_log.h"
#include "support/programs.h"
#include "support/scoped_environment.h"
#include "support/scratch_folder.h"
#include "support/staged_console.h"
#include "support/test_thread.h"

namespace {

using Event = boottime::BootTimeMonitor::WinBootEvent;
using winestandins::BootEventRecord;
constexpr DWORD kDeadlineMs = 20000;

std::wstring StandInFolder() { return testsupport::ExeFolder() + L"..\\winestandins\\"; }

std::uint64_t Now() {
  FILETIME now{};
  ::GetSystemTimeAsFileTime(&now);
  return ky::FileTimeToU64(now);
}

// diagperf.exe, the writer, with `arguments`.
std::wstring Writer(const std::wstring& arguments) { return L"\"" + StandInFolder() + L"diagperf.exe\" " + arguments; }

class BootEventStandInTest : public ::testing::Test {
 protected:
  // An event of the boot before this one, as an earlier run of the writer left it.
  void AddEarlierBoot(std::uint32_t bootTime) {
    BootEventRecord earlier;
    earlier.created = Now() - (::GetTickCount64() + 60000) * 10000;
    earlier.mainPathBootTime = bootTime / 2;
    earlier.postBootTime = bootTime - bootTime / 2;
    earlier.bootTime = bootTime;
    ASSERT_EQ(winestandins::AppendBootEvent(store, earlier), 0u);
  }
  bool WaitLogged(const wchar_t* text) { return testsupport::WaitUntil([&] { return log.contains(text); }, kDeadlineMs); }
  std::vector<BootEventRecord> Stored() {
    std::vector<BootEventRecord> records;
    EXPECT_TRUE(winestandins::ReadBootEvents(store, records));
    return records;
  }

  testsupport::CapturedLog log;
  testsupport::ScratchFolder scratch;
  testsupport::StagedConsole console{L"ConsoleSessionWineStandInTest"};
  const std::wstring store = scratch.file(L"events.jsonl");
  const testsupport::ScopedEnvironment storeOverride{winestandins::kStoreOverride, store};
};

TEST_F(BootEventStandInTest, TheModuleTakesTheEventTheWriterWritesAfterLogonAndSkipsEarlierBoots) {
  if (!lumera::dev::RunningUnderWine()) GTEST_SKIP() << "the stand-ins are for Wine prefixes only";
  AddEarlierBoot(61000);
  console.Set(0);

  Event event(boottime::SystemClock::Instance(), StandInFolder() + L"wevtapi.dll");
  ASSERT_TRUE(event.Start());
  ASSERT_TRUE(WaitLogged(L"<- boottime::CWinBootEvents::Subscription::Init")) << "no subscription after RpcSs";
  ASSERT_FALSE(log.contains(L"EvtSubscribe failed"));

  // Delivered but of an earlier boot: the wait stays open.
  AddEarlierBoot(72000);
  ASSERT_TRUE(WaitLogged(L"bootTime=72000"));
  EXPECT_FALSE(event.Done());

  ky::unique_handle writer = testsupport::StartProgram(Writer(L"--idle-seconds 1 --idle-percent 0 --poll-ms 100 --max-seconds 30"));
  ASSERT_TRUE(writer);
  EXPECT_EQ(::WaitForSingleObject(writer.get(), 1500), static_cast<DWORD>(WAIT_TIMEOUT))
      << "the writer must wait for the logon";
  const auto logonTick = static_cast<std::uint32_t>(::GetTickCount64());
  console.Set(1);
  ASSERT_EQ(::WaitForSingleObject(writer.get(), kDeadlineMs), WAIT_OBJECT_0);
  DWORD code = 99;
  ASSERT_TRUE(::GetExitCodeProcess(writer.get(), &code));
  ASSERT_EQ(code, 0u);

  const std::vector<BootEventRecord> records = Stored();
  ASSERT_EQ(records.size(), 3u) << "earlier boots' events stay in the store";
  const BootEventRecord& written = records.back();
  EXPECT_EQ(written.bootTime, written.mainPathBootTime + written.postBootTime);
  EXPECT_GE(written.mainPathBootTime, logonTick);
  EXPECT_LE(written.mainPathBootTime, logonTick + 10000) << "the writer notices the logon within its polls";

  ASSERT_EQ(::WaitForSingleObject(event.DoneEvent(), kDeadlineMs), WAIT_OBJECT_0);
  EXPECT_EQ(event.ResultState(), Event::kResultFound);
  EXPECT_EQ(event.BootTime(), written.bootTime);
  event.Stop();

  // A second writer in the same boot adds nothing.
  ASSERT_NE(testsupport::RunProgram(Writer(L"--max-seconds 5"), kDeadlineMs).exitCode, static_cast<DWORD>(WAIT_TIMEOUT));
  EXPECT_EQ(Stored().size(), 3u);
  for (const wchar_t* bad : {L"--idle-percent 101", L"--poll-ms 0", L"--max-seconds", L"--unknown 1"}) {
    EXPECT_EQ(testsupport::RunProgram(Writer(bad), kDeadlineMs).exitCode, 2u) << bad;
  }
}

TEST_F(BootEventStandInTest, TheLibraryServesItsOneChannelAndRefusesWhatItDoesNotServe) {
  AddEarlierBoot(1000);
  AddEarlierBoot(2000);
  ky::ModuleLibrary library;
  ASSERT_EQ(library.Load(StandInFolder() + L"wevtapi.dll"), 0u);
  decltype(&::EvtQuery) query = nullptr;
  decltype(&::EvtNext) next = nullptr;
  decltype(&::EvtClose) close = nullptr;
  decltype(&::EvtCreateRenderContext) context = nullptr;
  decltype(&::EvtRender) render = nullptr;
  ASSERT_EQ(library.Bind({KY_BIND_DECLARED(EvtQuery, query), KY_BIND_DECLARED(EvtNext, next),
                          KY_BIND_DECLARED(EvtClose, close), KY_BIND_DECLARED(EvtCreateRenderContext, context),
                          KY_BIND_DECLARED(EvtRender, render)}),
            0u);
  constexpr wchar_t kChannel[] = L"Microsoft-Windows-Diagnostics-Performance/Operational";

  ::SetLastError(0);
  EXPECT_EQ(query(nullptr, L"System", L"*", EvtQueryChannelPath), nullptr);
  EXPECT_EQ(::GetLastError(), 15007u);
  int notAHandle = 0;
  EXPECT_FALSE(close(reinterpret_cast<EVT_HANDLE>(&notAHandle)));
  EXPECT_EQ(::GetLastError(), static_cast<DWORD>(ERROR_INVALID_HANDLE));

  EVT_HANDLE results = query(nullptr, kChannel, L"Event/System[EventID=100]", 0x201);
  ASSERT_NE(results, nullptr);
  LPCWSTR paths[] = {L"Event/EventData/Data[@Name=\"BootTime\"]", L"Event/EventData/Data[@Name=\"Unknown\"]",
                     L"Event/System/EventRecordID"};
  EVT_HANDLE values = context(3, paths, EvtRenderContextValues);
  ASSERT_NE(values, nullptr);
  std::vector<std::uint32_t> bootTimes;
  EVT_HANDLE event = nullptr;
  DWORD returned = 0;
  while (next(results, 1, &event, INFINITE, 0, &returned)) {
    DWORD used = 0, count = 0;
    EXPECT_FALSE(render(values, event, EvtRenderEventValues, 0, nullptr, &used, &count));
    EXPECT_EQ(::GetLastError(), static_cast<DWORD>(ERROR_INSUFFICIENT_BUFFER));
    std::vector<BYTE> buffer(used);
    ASSERT_TRUE(render(values, event, EvtRenderEventValues, used, buffer.data(), &used, &count));
    const auto* rendered = reinterpret_cast<const EVT_VARIANT*>(buffer.data());
    ASSERT_EQ(count, 3u);
    EXPECT_EQ(rendered[0].Type, static_cast<DWORD>(EvtVarTypeUInt32));
    EXPECT_EQ(rendered[1].Type, static_cast<DWORD>(EvtVarTypeNull));
    bootTimes.push_back(rendered[0].UInt32Val);
    EXPECT_TRUE(close(event));
  }
  EXPECT_EQ(::GetLastError(), static_cast<DWORD>(ERROR_NO_MORE_ITEMS));
  EXPECT_EQ(bootTimes, (std::vector<std::uint32_t>{2000, 1000})) << "newest first";
  EXPECT_TRUE(close(values));
  EXPECT_TRUE(close(results));
}

TEST(BootEventStore, MalformedAndOversizedLinesAreSkipped) {
  testsupport::ScratchFolder scratch;
  const std::wstring path = scratch.file(L"store.jsonl");
  BootEventRecord good;
  good.created = 133000000000000000ull;
  good.bootTime = 3;
  const std::string text = winestandins::FormatBootEvent(good) + "\n" + "{\"id\":\"2\"}\n" + "not json\n" +
                           std::string(10000, '{') + "\n" +
                           "{\"id\":\"3\",\"created\":\"1\",\"BootTime\":\"4294967296\",\"MainPathBootTime\":\"0\","
                           "\"BootPostBootTime\":\"0\"}\n" +
                           winestandins::FormatBootEvent(good);  // no line end yet: still being written
  testsupport::WriteFileBytes(path, text);
  std::vector<BootEventRecord> records;
  ASSERT_TRUE(winestandins::ReadBootEvents(path, records));
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0].created, good.created);
  ASSERT_TRUE(winestandins::ReadBootEvents(scratch.file(L"missing.jsonl"), records));
  EXPECT_TRUE(records.empty());
}

// A service under Wine gets another ProgramData variable than a console program; the writer
// and the subscriber must still meet in one store.
TEST(BootEventStore, ThePathIsTheMachinesNotTheProcessEnvironments) {
  testsupport::ScratchFolder scratch;
  const std::wstring usual = winestandins::BootEventStorePath();
  ASSERT_FALSE(usual.empty());
  {
    const testsupport::ScopedEnvironment asService(L"ProgramData", scratch.file(L"elsewhere"));
    EXPECT_EQ(winestandins::BootEventStorePath(), usual);
  }
  constexpr wchar_t kUnderDrive[] = L":\\ProgramData\\WineStandIns\\";
  EXPECT_EQ(_wcsnicmp(usual.c_str() + 1, kUnderDrive, std::wcslen(kUnderDrive)), 0) << usual;
}

}  // namespace
