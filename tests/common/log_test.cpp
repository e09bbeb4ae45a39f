#include "common/log.h"

#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <regex>
#include <string>
#include <tuple>
#include <vector>

#include "support/captured_log.h"
#include "support/failing_allocation.h"
#include "support/programs.h"
#include "support/scratch_folder.h"
#include "support/test_thread.h"

namespace {

using testsupport::CapturedLog;
using testsupport::LogEntry;

constexpr wchar_t kOuter[] = L"logtest::COuter::Run";
constexpr wchar_t kInner[] = L"logtest::CInner::Step";

void Inner() {
  KY_TRACE(kInner);
  KY_LOG(logging::kLevelInfo, L"inner %d", 7);
}

void Outer() {
  KY_TRACE(kOuter);
  Inner();
  KY_LOG(logging::kLevelError, L"outer done");
}

// Entry and exit traces of each thread must pair up like brackets, naming the same function.
void ExpectProperlyNested(const std::vector<LogEntry>& entries) {
  std::map<DWORD, std::vector<std::wstring>> open;
  for (const auto& entry : entries) {
    auto& stack = open[entry.threadId];
    if (entry.depthChange == logcore::kDepthEnter) {
      EXPECT_EQ(entry.text, L"-> " + entry.function);
      stack.push_back(entry.function);
    } else if (entry.depthChange == logcore::kDepthLeave) {
      ASSERT_FALSE(stack.empty()) << "exit without entry";
      EXPECT_EQ(entry.function, stack.back());
      EXPECT_TRUE(std::regex_match(entry.text, std::wregex(L"<- " + stack.back() + L" \\[\\d+\\]"))) << entry.text;
      stack.pop_back();
    } else {
      EXPECT_EQ(entry.depthChange, 0u);
    }
  }
  for (const auto& [thread, stack] : open) EXPECT_TRUE(stack.empty()) << "thread " << thread;
}

class Logging : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(log_.available()) << "the capturing logcore.dll must be beside the test program";
  }
  CapturedLog log_;
};

TEST_F(Logging, TracesOnConcurrentThreadsCarryNameLevelAndDepthChangesAndNestPerThread) {
  constexpr int kThreads = 4;
  constexpr int kRounds = 100;
  {
    std::vector<std::unique_ptr<testsupport::TestThread>> threads;
    for (int t = 0; t < kThreads; ++t) {
      threads.push_back(std::make_unique<testsupport::TestThread>([] {
        for (int i = 0; i < kRounds; ++i) Outer();
      }));
    }
    for (auto& thread : threads) ASSERT_TRUE(thread->join(testsupport::kLongWait));
  }
  const auto entries = log_.entries();
  ASSERT_EQ(entries.size(), static_cast<std::size_t>(kThreads * kRounds * 6));
  ExpectProperlyNested(entries);
  // Each thread's messages are one call's six over and over.
  const std::tuple<std::wstring, std::uint32_t, std::uint16_t> call[] = {
      {kOuter, 32, 1}, {kInner, 32, 1}, {kInner, 16, 0}, {kInner, 32, 0xFFFF}, {kOuter, 4, 0}, {kOuter, 32, 0xFFFF}};
  std::map<DWORD, std::size_t> next;
  for (const auto& entry : entries) {
    ASSERT_EQ(std::tie(entry.function, entry.level, entry.depthChange), call[next[entry.threadId]++ % 6]);
    ASSERT_EQ(entry.moduleBase, ::GetModuleHandleW(nullptr));
  }
  EXPECT_EQ(log_.count(L"inner 7"), static_cast<std::size_t>(kThreads * kRounds));
  EXPECT_EQ(log_.count(L"outer done"), static_cast<std::size_t>(kThreads * kRounds));
  EXPECT_EQ(log_.outstandingInits(), 0) << "the shared logger must be released after the last user";
}

TEST_F(Logging, StreamWritesOneMessageWithoutInterpretingIt) {
  KY_TRACE(L"logtest::Stream");
  log_.clear();
  {
    logging::CLogStream stream(logging::kLevelInfo, kyTrace_.Name());
    stream << L"obj name = " << L"boot" << L" count " << 12 << " " << std::string("narrow") << L" 100%s "
           << static_cast<const wchar_t*>(nullptr) << L" " << static_cast<const char*>(nullptr);
    stream.Flush();
  }
  KY_LOG_STREAM(logging::kLevelError) << L"second";
  const auto entries = log_.entriesFor(L"logtest::Stream");
  ASSERT_EQ(entries.size(), 2u);
  EXPECT_EQ(entries[0].text, L"obj name = boot count 12 narrow 100%s null null");
  EXPECT_EQ(entries[0].level, logging::kLevelInfo);
  EXPECT_EQ(entries[0].depthChange, 0u);
  EXPECT_EQ(entries[1].text, L"second");
}

// Each message with no other holder loads and frees the library; thousands of them must not
// wear out anything process-wide (the library's instance lives and dies with each load).
TEST(LoggingLibraryLifetime, ThousandsOfUnheldMessagesLoadAndFreeTheLibraryCleanly) {
  for (int i = 0; i < 3000; ++i) logging::Write(logging::kLevelInfo, L"LoggingLibraryLifetime", L"message %d", i);
  EXPECT_EQ(::GetModuleHandleW(L"logcore.dll"), nullptr) << "freed again after the last message";
  CapturedLog log;
  ASSERT_TRUE(log.available());
  logging::Write(logging::kLevelInfo, L"LoggingLibraryLifetime", L"still logging");
  EXPECT_EQ(log.count(L"still logging"), 1u);
}

TEST(LoggingLibraryLifetime, AMessageWhenTheAdapterCannotBeMadeIsDroppedAndTheNextIsWritten) {
  CapturedLog log;
  {
    testsupport::FailAllocations fail;
    logging::Write(logging::kLevelError, L"LoggingLibraryLifetime", L"starved");
  }
  logging::Write(logging::kLevelError, L"LoggingLibraryLifetime", L"fed");
  EXPECT_EQ(log.count(L"starved"), 0u);
  EXPECT_EQ(log.count(L"fed"), 1u);
}

TEST(LoggingWithoutLibrary, ChildBody) {
  if (::GetFileAttributesW((testsupport::ExeFolder() + L"logcore.dll").c_str()) != INVALID_FILE_ATTRIBUTES) {
    GTEST_SKIP() << "runs only in a copy of this program that has no logcore.dll beside it";
  }
  Outer();
  {
    KY_TRACE(L"logtest::Stream");
    KY_LOG_STREAM(logging::kLevelInfo) << L"streamed " << 1;
    logging::LogRef log;
    EXPECT_FALSE(log->Loaded());
    EXPECT_EQ(log->Write(0, logging::kLevelError, L"logtest", L"%s", L"text"), logging::kNoInterface);
  }
  EXPECT_EQ(::GetModuleHandleW(L"logcore.dll"), nullptr);
}

TEST(LoggingWithoutLibrary, EverythingWorksAndNothingIsWritten) {
  testsupport::ScratchFolder folder;
  const std::wstring copy = folder.file(L"nolog_test.exe");
  wchar_t self[MAX_PATH] = {};
  ASSERT_GT(::GetModuleFileNameW(nullptr, self, MAX_PATH), 0u);
  ASSERT_TRUE(::CopyFileW(self, copy.c_str(), TRUE));
  const auto run = testsupport::RunProgram(L"\"" + copy + L"\" --gtest_filter=LoggingWithoutLibrary.ChildBody",
                                           testsupport::kLongWait);
  EXPECT_EQ(run.exitCode, 0u) << run.output;
  EXPECT_NE(run.output.find("[  PASSED  ] 1 test."), std::string::npos) << "the checks did not run\n" << run.output;
}

}  // namespace
