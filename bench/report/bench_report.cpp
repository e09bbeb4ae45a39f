// bench_report.exe: builds the startup report for N Run entries whose targets are N distinct
// files of about 1 MB each, against the bare cost of reading their version resources and
// hashing their content with BCrypt in the same run; then again with the identities cached.
//
//   bench_report.exe [--entries N] [--size-kb K] [--rounds R]
#include <windows.h>
#include <bcrypt.h>

#include <cstdio>
#include <cwchar>
#include <string>
#include <vector>

#include "bench_timing.h"
#include "plugin/plugin_startup_manager.h"
#include "common/command_line.h"
#include "common/module_library.h"
#include "common/unique_handle.h"
#include "startup/long_path.h"

namespace {

constexpr wchar_t kRunKey[] = L"Software\\Microsoft\\Windows\\CurrentVersion\\Run";
constexpr wchar_t kValuePrefix[] = L"LumeraBench";
constexpr DWORD kReadChunk = 1024 * 1024;

struct Options {
  unsigned entries = 200;
  unsigned sizeKb = 1024;
  unsigned rounds = 5;
};

bool ParseArgs(Options& options) {
  std::vector<std::wstring> args;
  (void)ky::ProcessArguments(args);  // an unsplittable command line is refused below: no program name
  const int count = static_cast<int>(args.size());
  for (int i = 1; i + 1 < count; i += 2) {
    const std::wstring& name = args[i];
    const unsigned long value = std::wcstoul(args[i + 1].c_str(), nullptr, 10);
    if (value == 0 || value > 100000) return false;
    if (name == L"--entries") {
      options.entries = static_cast<unsigned>(value);
    } else if (name == L"--size-kb") {
      options.sizeKb = static_cast<unsigned>(value);
    } else if (name == L"--rounds") {
      options.rounds = static_cast<unsigned>(value);
    } else {
      return false;
    }
  }
  return count % 2 == 1;
}

void Progress(const char* what, unsigned done, unsigned total) {
  std::fprintf(stderr, "\r%-40s %u/%u   ", what, done, total);
  std::fflush(stderr);
}

std::string ReadAll(const std::wstring& path) {
  ky::unique_file file(::CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr));
  LARGE_INTEGER size{};
  if (!file.valid() || !::GetFileSizeEx(file.get(), &size)) return {};
  std::string bytes(static_cast<std::size_t>(size.QuadPart), '\0');
  DWORD read = 0;
  ::ReadFile(file.get(), bytes.data(), static_cast<DWORD>(bytes.size()), &read, nullptr);
  return bytes;
}

// The program with its version resource, followed by bytes of its own so every file differs.
bool MakeTargets(const std::wstring& folder, const std::string& program, const Options& options,
                 std::vector<std::wstring>& paths) {
  const std::size_t size = static_cast<std::size_t>(options.sizeKb) * 1024;
  for (unsigned i = 0; i < options.entries; ++i) {
    std::string bytes = program;
    std::uint32_t state = 2166136261u ^ i;
    while (bytes.size() < size) {
      state = state * 1664525u + 1013904223u;
      bytes.push_back(static_cast<char>(state >> 24));
    }
    const std::wstring path = folder + L"app" + std::to_wstring(i) + L".exe";
    ky::unique_file file(::CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr));
    DWORD written = 0;
    if (!file.valid() || !::WriteFile(file.get(), bytes.data(), static_cast<DWORD>(bytes.size()), &written, nullptr)) {
      return false;
    }
    paths.push_back(path);
    if (i % 10 == 0) Progress("making target files", i, options.entries);
  }
  return true;
}

// What any report must at least do per file: read its version texts and hash its content.
bool Bare(const std::vector<std::wstring>& paths) {
  BCRYPT_ALG_HANDLE provider = nullptr;
  if (::BCryptOpenAlgorithmProvider(&provider, BCRYPT_SHA256_ALGORITHM, nullptr, 0) < 0) return false;
  std::vector<std::uint8_t> buffer(kReadChunk);
  bool ok = true;
  for (const auto& path : paths) {
    DWORD ignored = 0;
    const DWORD infoSize = ::GetFileVersionInfoSizeW(path.c_str(), &ignored);
    std::vector<std::uint8_t> info(infoSize);
    void* text = nullptr;
    UINT length = 0;
    ok = ok && infoSize != 0 && ::GetFileVersionInfoW(path.c_str(), 0, infoSize, info.data()) &&
         ::VerQueryValueW(info.data(), L"\\StringFileInfo\\040904b0\\CompanyName", &text, &length);
    BCRYPT_HASH_HANDLE hash = nullptr;
    ky::unique_file file(::CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                                       FILE_FLAG_SEQUENTIAL_SCAN, nullptr));
    if (!file.valid() || ::BCryptCreateHash(provider, &hash, nullptr, 0, nullptr, 0, 0) < 0) return false;
    DWORD read = 0;
    while (::ReadFile(file.get(), buffer.data(), kReadChunk, &read, nullptr) && read > 0) {
      ::BCryptHashData(hash, buffer.data(), read, 0);
    }
    std::uint8_t digest[32];
    ::BCryptFinishHash(hash, digest, sizeof(digest), 0);
    ::BCryptDestroyHash(hash);
  }
  ::BCryptCloseAlgorithmProvider(provider, 0);
  return ok;
}

class RunEntries {
 public:
  explicit RunEntries(const std::vector<std::wstring>& paths) : count_(paths.size()) {
    for (std::size_t i = 0; i < paths.size(); ++i) {
      const std::wstring name = kValuePrefix + std::to_wstring(i);
      const std::wstring data = L"\"" + paths[i] + L"\" /background";
      ::RegSetKeyValueW(HKEY_CURRENT_USER, kRunKey, name.c_str(), REG_SZ, data.c_str(),
                        static_cast<DWORD>((data.size() + 1) * sizeof(wchar_t)));
    }
  }
  ~RunEntries() {
    for (std::size_t i = 0; i < count_; ++i) {
      ::RegDeleteKeyValueW(HKEY_CURRENT_USER, kRunKey, (kValuePrefix + std::to_wstring(i)).c_str());
    }
  }

 private:
  std::size_t count_;
};

// Moves every file's last-write time on, so no cache knows the files any more.
void Touch(const std::vector<std::wstring>& paths, unsigned generation) {
  FILETIME now{};
  ::GetSystemTimeAsFileTime(&now);
  const std::uint64_t time = ky::FileTimeToU64(now) + generation * 10000000ULL;
  const FILETIME stamp{static_cast<DWORD>(time), static_cast<DWORD>(time >> 32)};
  for (const auto& path : paths) {
    ky::unique_file file(::CreateFileW(path.c_str(), FILE_WRITE_ATTRIBUTES, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr));
    ::SetFileTime(file.get(), nullptr, nullptr, &stamp);
  }
}

void RemoveFolder(const std::wstring& folder, const std::vector<std::wstring>& paths) {
  for (const auto& path : paths) ::DeleteFileW(path.c_str());
  ::RemoveDirectoryW(folder.c_str());
}

}  // namespace

int main() {
  // The module's traces go to a file at the default level; the report is timed at info level,
  // as a deployed module logs, unless the caller chose a level.
  (void)bench::LogLevelAsDeployed();
  Options options;
  if (!ParseArgs(options)) {
    std::fputs("usage: bench_report [--entries N] [--size-kb K] [--rounds R]\n", stderr);
    return 2;
  }
  const std::string program = ReadAll(ky::ThisModuleFolder() + L"tests\\report_fixture_full.exe");
  if (program.empty()) {
    std::fputs("bench_report: tests\\report_fixture_full.exe is missing beside the benchmark\n", stderr);
    return 3;
  }
  wchar_t temp[MAX_PATH] = {};
  ::GetTempPathW(MAX_PATH, temp);
  const std::wstring folder = std::wstring(temp) + L"lumera-bench-report-" + std::to_wstring(::GetCurrentProcessId()) + L"\\";
  ::CreateDirectoryW(folder.c_str(), nullptr);
  std::vector<std::wstring> paths;
  if (!MakeTargets(folder, program, options, paths)) {
    std::fputs("\nbench_report: cannot write the target files\n", stderr);
    RemoveFolder(folder, paths);
    return 1;
  }

  RunEntries entries(paths);
  // No connection: the report is built and logged exactly as when sent, and not posted.
  boottime::CPluginStartupManager manager([] { return static_cast<IProductInfo*>(nullptr); }, L"no-pipelink.dll");
  (void)manager.Init();

  // Bare and first-report rounds alternate so that a change in the machine's load weighs on
  // both; a new last-write time on every file makes each report a first one again.
  std::vector<double> bare;
  std::vector<double> firsts;
  for (unsigned round = 0; round < options.rounds; ++round) {
    Progress("bare: version texts + BCrypt", round, options.rounds);
    double start = bench::NowSeconds();
    if (!Bare(paths)) {
      std::fputs("\nbench_report: the bare baseline failed\n", stderr);
      RemoveFolder(folder, paths);
      return 1;
    }
    bare.push_back(bench::NowSeconds() - start);
    Progress("first report", round, options.rounds);
    Touch(paths, round + 1);
    startup::ForgetLongFolders();
    start = bench::NowSeconds();
    (void)manager.BuildAndReport();
    firsts.push_back(bench::NowSeconds() - start);
  }
  const double first = bench::Median(firsts);
  std::vector<double> cached;
  for (unsigned round = 0; round < options.rounds; ++round) {
    Progress("cached report", round, options.rounds);
    const double start = bench::NowSeconds();
    (void)manager.BuildAndReport();
    cached.push_back(bench::NowSeconds() - start);
  }
  const std::size_t reported = manager.Apps().size();
  RemoveFolder(folder, paths);

  const double bareMedian = bench::Median(bare);
  const double cachedMedian = bench::Median(cached);
  std::fprintf(stderr, "\r%-60s\r", "");
  std::printf("entries: %u files of %u KB; apps reported: %zu\n", options.entries, options.sizeKb, reported);
  std::printf("bare (version texts + BCrypt SHA-256), median of %u: %.1f ms\n", options.rounds, bareMedian * 1e3);
  std::printf("first report, median of %u: %.1f ms\n", options.rounds, first * 1e3);
  std::printf("cached report, median of %u: %.1f ms\n", options.rounds, cachedMedian * 1e3);
  std::printf("startup report: %.2f x bare\n", bareMedian > 0 ? first / bareMedian : 0);
  std::printf("startup report, cached: %.2f x first report\n", first > 0 ? cachedMedian / first : 0);
  return reported >= options.entries ? 0 : 1;
}
