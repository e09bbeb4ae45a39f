// The real logcore.dll, loaded from a private copy so that its default folder, environment
// and file are each test's own.
#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <regex>
#include <string>
#include <vector>

#include "common/module_library.h"
#include "lumera/logcore.h"
#include "support/scratch_folder.h"
#include "support/test_thread.h"

namespace {

using testsupport::ReadFileBytes;
using testsupport::ScratchFolder;

constexpr const char* kExports[] = {
    "LogInit", "LogDeinit", "LogApplySettings", "LogSetSettingsFile", "LogEnable", "LogSetLevel", "LogSetPath",
    "LogSetType", "LogSetMode", "LogSetMaxSize", "LogSetDepth", "LogWrite", "LogIsEnabled", "LogMonitorSettings",
    "LogUninitDeskMetrics", "LogTrackEvent", "LogTrackEventData", "LogRemoveModule", "LogGetLevel"};
constexpr const wchar_t* kEnvironment[] = {L"LUMERA_LOG_DIR", L"LUMERA_LOG_LEVEL", L"LUMERA_LOG_CONSOLE"};

struct Line {
  unsigned long thread;
  unsigned level;
  std::size_t indent;
  std::string function;
  std::string text;
};

// Every line must be whole: the fixed header, the indentation, "function: text", CRLF.
std::vector<Line> ParseLog(const std::string& bytes) {
  static const std::regex kLine(
      R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} +(\d+) +(\d+) ( *)(\S*): ([^\r\n]*))");
  std::vector<Line> lines;
  std::size_t at = 0;
  while (at < bytes.size()) {
    const std::size_t end = bytes.find("\r\n", at);
    EXPECT_NE(end, std::string::npos) << "unterminated last line";
    if (end == std::string::npos) break;
    std::smatch m;
    const std::string line = bytes.substr(at, end - at);
    if (std::regex_match(line, m, kLine)) {
      lines.push_back({std::stoul(m[1]), static_cast<unsigned>(std::stoul(m[2])),
                       static_cast<std::size_t>(m[3].length()) / 2, m[4], m[5]});
    } else {
      ADD_FAILURE() << "malformed line: " << line;
    }
    at = end + 2;
  }
  return lines;
}

class LogcoreLibrary {
 public:
  explicit LogcoreLibrary(const ScratchFolder& folder) : path_(folder.file(L"logcore.dll")) {
    ::CopyFileW((testsupport::ExeFolder() + L"..\\logcore.dll").c_str(), path_.c_str(), TRUE);
    Load();
  }
  void Load() { (void)module_.Load(path_); }
  // Unloading closes the file, so that the test reads everything that was written.
  void Unload() { module_.Free(); }
  HMODULE module() const { return module_.get(); }

  template <class Fn>
  Fn Get(const char* name) const {
    return module_.Resolve<Fn>(name);
  }
  int Write(std::uint16_t depthChange, std::uint32_t level, const wchar_t* function, const wchar_t* text) {
    return Get<LogWriteFn>("LogWrite")(depthChange, &level, module_.get(), function, L"%s", text);
  }

 private:
  std::wstring path_;
  ky::ModuleLibrary module_;
};

class Logcore : public ::testing::Test {
 protected:
  static void ClearEnvironment() {
    for (const wchar_t* name : kEnvironment) ::SetEnvironmentVariableW(name, nullptr);
  }
  void SetUp() override {
    ClearEnvironment();
    ASSERT_NE(library_.module(), nullptr);
    for (const char* name : kExports) ASSERT_NE(::GetProcAddress(library_.module(), name), nullptr) << name;
    ASSERT_EQ(library_.Get<LogInitFn>("LogInit")(), 0);
  }
  void TearDown() override { ClearEnvironment(); }
  std::vector<Line> ReadLog(const std::wstring& folder) { return ParseLog(ReadFileBytes(folder + L"lumera.log")); }

  ScratchFolder folder_;
  LogcoreLibrary library_{folder_};
};

TEST_F(Logcore, WritesIndentedFormattedLinesIntoTheConfiguredFolder) {
  const std::wstring custom = folder_.file(L"custom\\nested");
  ASSERT_EQ(library_.Get<LogSetPathFn>("LogSetPath")(custom.c_str()), 0);
  const auto write = library_.Get<LogWriteFn>("LogWrite");
  std::uint32_t trace = 32, info = 16;
  const void* base = library_.module();
  write(logcore::kDepthEnter, &trace, base, L"ns::C::Run", L"-> %s", L"ns::C::Run");
  // Microsoft semantics, which the module's log formats are written for: %s is wide, %S narrow.
  write(0, &info, base, L"ns::C::Run", L"%s=%S n=%d caf\u00e9, %hs|%ls, %d%%, 0x%x", L"wide", "narrow", 5, "h", L"l",
        42, 255);
  write(logcore::kDepthLeave, &trace, base, L"ns::C::Run", L"<- %s [%d]", L"ns::C::Run", 3);
  write(logcore::kDepthLeave, &info, base, L"ns::C::Run", L"unbalanced");
  write(0, &info, base, nullptr, L"no name");
  EXPECT_EQ(write(0, &info, base, L"f", nullptr), ERROR_INVALID_DATA);
  EXPECT_EQ(write(0, nullptr, base, L"f", L"x"), ERROR_INVALID_DATA);
  library_.Unload();

  const auto lines = ReadLog(custom + L"\\");
  ASSERT_EQ(lines.size(), 5u);
  EXPECT_EQ(lines[1].text, "wide=narrow n=5 caf\xc3\xa9, h|l, 42%, 0xff");
  EXPECT_EQ(lines[2].text, "<- ns::C::Run [3]");
  EXPECT_EQ(lines[4].function, "");
  const std::size_t indents[] = {0, 1, 0, 0, 0};  // an unbalanced leave stays at 0
  for (std::size_t i = 0; i < lines.size(); ++i) EXPECT_EQ(lines[i].indent, indents[i]) << i;
  EXPECT_EQ(lines[0].thread, ::GetCurrentThreadId());
  EXPECT_EQ(lines[0].level, 32u);
}

TEST_F(Logcore, LevelFilterSwitchesAndBoundedText) {
  ASSERT_EQ(library_.Get<LogSetLevelFn>("LogSetLevel")(16), 0);
  const auto enable = library_.Get<LogEnableFn>("LogEnable");
  const auto setType = library_.Get<LogSetTypeFn>("LogSetType");
  for (std::uint32_t level : {4u, 8u, 16u, 32u}) library_.Write(0, level, L"f", L"by level");
  enable(0);
  library_.Write(0, 4, L"f", L"while disabled");
  enable(1);
  setType(logcore::kTypeConsole);
  library_.Write(0, 4, L"f", L"console only");
  setType(logcore::kTypeFile);
  library_.Write(0, 4, std::wstring(1000, L'n').c_str(), std::wstring(10000, L'x').c_str());
  library_.Unload();

  const auto lines = ReadLog(folder_.file(L"logs\\"));
  ASSERT_EQ(lines.size(), 4u) << "the default folder is logs\\ beside the library";
  for (unsigned i = 0; i < 3; ++i) EXPECT_EQ(lines[i].level, 4u << i) << "levels up to the filter's 16";
  EXPECT_EQ(lines[3].function, std::string(260, 'n'));
  EXPECT_EQ(lines[3].text, std::string(4095, 'x'));
}

TEST_F(Logcore, EnvironmentOverridesDefaultsWhenLoadedAndTheFileRotatesWithoutLosingALine) {
  library_.Unload();
  const std::wstring folder = folder_.file(L"from-env\\");
  ::SetEnvironmentVariableW(L"LUMERA_LOG_DIR", folder.c_str());
  ::SetEnvironmentVariableW(L"LUMERA_LOG_LEVEL", L"8");
  library_.Load();
  ASSERT_EQ(library_.Get<LogInitFn>("LogInit")(), 0);
  EXPECT_EQ(library_.Get<LogGetLevelFn>("LogGetLevel")(), 8);
  ASSERT_EQ(library_.Get<LogSetMaxSizeFn>("LogSetMaxSize")(2000), 0);
  for (int i = 0; i < 60; ++i) {
    library_.Write(0, 16, L"f", L"above the level");
    library_.Write(0, 8, L"f", std::to_wstring(i).append(60, L'.').c_str());
  }
  library_.Unload();

  const std::string current = ReadFileBytes(folder + L"lumera.log");
  const auto older = ParseLog(ReadFileBytes(folder + L"lumera.log.1"));
  const auto newer = ParseLog(current);
  EXPECT_LE(current.size(), 2000u);
  ASSERT_FALSE(older.empty());
  ASSERT_FALSE(newer.empty());
  for (const auto& line : newer) EXPECT_EQ(line.level, 8u);
  EXPECT_EQ(std::stoi(newer.back().text), 59);
  EXPECT_EQ(std::stoi(older.back().text) + 1, std::stoi(newer.front().text)) << "the line at the boundary is kept";
}

TEST_F(Logcore, ConcurrentWritersProduceWholeLinesAndKeepTheirOwnDepth) {
  constexpr int kThreads = 4;
  constexpr int kRounds = 150;
  {
    std::vector<std::unique_ptr<testsupport::TestThread>> threads;
    for (int t = 0; t < kThreads; ++t) {
      threads.push_back(std::make_unique<testsupport::TestThread>([this, t] {
        const std::wstring padding(200, static_cast<wchar_t>(L'a' + t));
        for (int i = 0; i < kRounds; ++i) {
          library_.Write(logcore::kDepthEnter, 32, L"worker", L"enter");
          library_.Write(0, 32, L"worker", (std::to_wstring(i) + L" " + padding).c_str());
          library_.Write(logcore::kDepthLeave, 32, L"worker", L"leave");
        }
      }));
    }
    for (auto& thread : threads) ASSERT_TRUE(thread->join(testsupport::kLongWait));
  }
  library_.Unload();

  const auto lines = ReadLog(folder_.file(L"logs\\"));
  ASSERT_EQ(lines.size(), static_cast<std::size_t>(kThreads * kRounds * 3));
  std::map<unsigned long, int> nextRound;
  for (const auto& line : lines) {
    if (line.text == "enter" || line.text == "leave") {
      EXPECT_EQ(line.indent, 0u);
      continue;
    }
    EXPECT_EQ(line.indent, 1u);
    const std::size_t space = line.text.find(' ');
    ASSERT_NE(space, std::string::npos);
    EXPECT_EQ(std::stoi(line.text.substr(0, space)), nextRound[line.thread]++);
    EXPECT_EQ(line.text.size() - space - 1, 200u);
  }
  EXPECT_EQ(nextRound.size(), static_cast<std::size_t>(kThreads));
}

}  // namespace
