// Under Wine the host's "LoadUsage" answers the disks' busy share from the Linux disk
// statistics, and the figures move when something writes.
#include <gtest/gtest.h>

#include <windows.h>

#include <atomic>
#include <thread>
#include <vector>

#include "common/unique_handle.h"
#include "component_manager.h"
#include "host_config.h"
#include "lumera_dev/console_session.h"
#include "lumera/interface_ids.h"
#include "lumera/loadusage.h"
#include "support/plugin_stub.h"
#include "support/scratch_folder.h"
#include "wine/linux_disk_busy.h"

namespace {

constexpr DWORD kDeadlineMs = 20000;
constexpr DWORD kPollMs = 100;
constexpr DWORD kChunk = 4 * 1024 * 1024;

TEST(LinuxDiskBusy, OnlyPhysicalDiskNamesCount) {
  for (const char* disk : {"vda", "nvme0n1"}) EXPECT_TRUE(host::wine::IsPhysicalDiskName(disk)) << disk;
  for (const char* other : {"loop3", "zram0", "dm-0", "..\\x", ""}) {
    EXPECT_FALSE(host::wine::IsPhysicalDiskName(other)) << other;
  }
}

TEST(LinuxDiskBusy, TheHostsDiskFiguresAreInRangeAndMoveUnderAWriteLoad) {
  if (!lumera::dev::RunningUnderWine()) GTEST_SKIP() << "Windows has disk counters of its own";
  host::wine::LinuxDiskBusy busy;
  if (!host::wine::ReadLinuxDiskBusy(busy)) GTEST_SKIP() << "this machine lists no physical disk";
  host::HostConfig config;
  host::ComponentManager host(config);
  auto* loadUsage = testsupport::GetPlugin<ILoadUsage>(host, L"LoadUsage", lumera::ids::LoadUsagePlugin);
  ASSERT_NE(loadUsage, nullptr);
  ky::unique_handle never(::CreateEventW(nullptr, TRUE, FALSE, nullptr));

  testsupport::ScratchFolder scratch;
  std::atomic<bool> stop{false};
  std::thread writer([&] {
    ky::unique_file file(::CreateFileW(scratch.file(L"load.bin").c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS,
                                       FILE_ATTRIBUTE_NORMAL, nullptr));
    std::vector<char> block(kChunk, 'x');
    while (file && !stop) {
      DWORD written = 0;
      ::SetFilePointer(file.get(), 0, nullptr, FILE_BEGIN);
      if (!::WriteFile(file.get(), block.data(), kChunk, &written, nullptr)) break;
      ::FlushFileBuffers(file.get());
    }
  });
  double latest = 0;
  const ULONGLONG start = ::GetTickCount64();
  std::uint32_t code = ERROR_NOT_READY;
  while (::GetTickCount64() - start < kDeadlineMs) {
    code = loadUsage->GetCurrentUsage(lumera::kLoadKindDisk, &latest);
    if (code == 0 && latest > 0) break;
    ::WaitForSingleObject(never.get(), kPollMs);
  }
  stop = true;
  writer.join();
  ASSERT_EQ(code, 0u);
  EXPECT_GT(latest, 0.0) << "a second of flushed writes left the disks idle";

  lumera::LoadUsageFigures figures;
  ASSERT_EQ(loadUsage->GetUsage(lumera::kLoadKindDisk, &figures), 0u);
  EXPECT_GE(figures.samples, 1u);
  EXPECT_GE(figures.minimum, 0.0);
  EXPECT_LE(figures.minimum, figures.average);
  EXPECT_LE(figures.average, figures.maximum);
  EXPECT_LE(figures.maximum, 100.0);
  EXPECT_GT(figures.maximum, 0.0);
  EXPECT_EQ(host.ReleasePlugin(L"LoadUsage"), 0u);
  host.Shutdown();
}

}  // namespace
