// The run-time binder, the handle owners and the exception boundary that every library
// binding, handle and interface method of the module goes through.
#include <gtest/gtest.h>

#include <filesystem>
#include <stdexcept>
#include <string>

#include "common/guard.h"
#include "common/module_library.h"
#include "common/unique_handle.h"
#include "support/captured_log.h"
#include "support/scoped_environment.h"
#include "support/scratch_folder.h"

namespace {

// Counts closes and, like a failing close, overwrites the thread's last error.
struct CountingTraits {
  using type = HANDLE;
  static inline int closes = 0;
  static type invalid() noexcept { return nullptr; }
  static bool is_valid(type h) noexcept { return ky::KernelHandleTraits::is_valid(h); }
  static void close(type) noexcept {
    ++closes;
    ::SetLastError(ERROR_INVALID_HANDLE);
  }
};
using CountingHandle = ky::unique_any<CountingTraits>;

TEST(HandleOwners, MinusOneIsNoHandleAndClosingKeepsTheLastError) {
  CountingTraits::closes = 0;
  { CountingHandle pseudo(INVALID_HANDLE_VALUE); }
  EXPECT_EQ(CountingTraits::closes, 0) << "-1 is the current process, never to be closed";
  EXPECT_FALSE(ky::unique_handle(INVALID_HANDLE_VALUE).valid());
  EXPECT_FALSE(ky::unique_file().valid());

  CountingHandle owned(reinterpret_cast<HANDLE>(0x44));
  ::SetLastError(ERROR_FILE_NOT_FOUND);
  owned.reset();
  EXPECT_EQ(::GetLastError(), static_cast<DWORD>(ERROR_FILE_NOT_FOUND)) << "the failing call's code survives the close";
  EXPECT_EQ(CountingTraits::closes, 1);
  owned.reset();
  EXPECT_EQ(CountingTraits::closes, 1) << "closed exactly once";
}

int g_boundCloses = 0;
void __stdcall BoundClose(int handle) {
  g_boundCloses += handle;
  ::SetLastError(ERROR_INVALID_HANDLE);
}

TEST(HandleOwners, ABoundHandleIsClosedOnceThroughItsOwnCloseFunction) {
  g_boundCloses = 0;
  {
    ky::unique_bound<int, void(__stdcall*)(int)> handle(5, &BoundClose);
    ky::unique_bound<int, void(__stdcall*)(int)> moved(std::move(handle));
    ky::unique_bound<int, void(__stdcall*)(int)> empty(0, &BoundClose);
    ky::unique_bound<int, void(__stdcall*)(int)> unbound(7, nullptr);
    ::SetLastError(ERROR_ACCESS_DENIED);
  }
  EXPECT_EQ(g_boundCloses, 5) << "neither the moved-from, the null nor the unbound handle is closed";
  EXPECT_EQ(::GetLastError(), static_cast<DWORD>(ERROR_ACCESS_DENIED));
}

TEST(ModuleLibrary, BindingIsAllOrNothingAndNamesTheFirstMissingExport) {
  ky::ModuleLibrary kernel;
  ASSERT_EQ(kernel.Load(L"kernel32.dll"), 0u);
  decltype(&::GetTickCount) tick = nullptr;
  decltype(&::GetCurrentProcessId) pid = nullptr;
  const char* missing = "unset";
  EXPECT_EQ(kernel.Bind({KY_BIND_DECLARED(GetTickCount, tick), ky::BindAs("LumeraNoSuchExport", pid)}, &missing),
            static_cast<std::uint32_t>(ERROR_PROC_NOT_FOUND));
  EXPECT_STREQ(missing, "LumeraNoSuchExport");
  EXPECT_EQ(tick, nullptr) << "no slot is written when any name is missing";

  ASSERT_EQ(kernel.Bind({KY_BIND_DECLARED(GetTickCount, tick), KY_BIND_DECLARED(GetCurrentProcessId, pid)}, &missing), 0u);
  EXPECT_EQ(missing, nullptr);
  EXPECT_EQ(pid(), ::GetCurrentProcessId());
  EXPECT_EQ(kernel.Resolve<decltype(&::GetCurrentProcessId)>("GetCurrentProcessId"), pid);

  ky::ModuleLibrary nothing;
  EXPECT_EQ(nothing.Bind({KY_BIND_DECLARED(GetTickCount, tick)}), static_cast<std::uint32_t>(ERROR_INVALID_HANDLE));
  EXPECT_EQ(nothing.Resolve<decltype(&::GetTickCount)>("GetTickCount"), nullptr);
}

TEST(ModuleLibrary, AFactoryLibraryWithoutThePairHoldsNothing) {
  ky::KyFactoryLibrary missingFile;
  EXPECT_EQ(missingFile.Load(testsupport::ExeFolder() + L"lumera-no-such-library.dll"),
            static_cast<std::uint32_t>(ERROR_MOD_NOT_FOUND));
  EXPECT_FALSE(missingFile.Library().Loaded());

  ky::KyFactoryLibrary kernel;
  const char* missing = nullptr;
  EXPECT_EQ(kernel.Load(L"kernel32.dll", &missing), static_cast<std::uint32_t>(ERROR_PROC_NOT_FOUND));
  EXPECT_STREQ(missing, "KyCreateObject");
  EXPECT_FALSE(kernel.Loaded());
  EXPECT_FALSE(kernel.Library().Loaded()) << "the library is freed when the pair is incomplete";
  void* object = &kernel;
  EXPECT_EQ(kernel.Create(L"x", GUID{}, &object), static_cast<std::uint32_t>(ERROR_INVALID_DATA));
  kernel.Destroy(L"x", object);  // nothing loaded: nothing happens
}

std::wstring FileOf(HMODULE module) {
  wchar_t path[MAX_PATH] = {};
  return std::wstring(path, ::GetModuleFileNameW(module, path, MAX_PATH));
}

TEST(ModuleLibrary, ALibraryComesByFullPathOrFromSystem32AndNeverFromTheCurrentFolderOrPath) {
  // Copies of a library of ours under a product name and under a Windows name, in the current
  // folder and in a folder first on PATH.
  const testsupport::PlantedSearchFolders planted;
  for (const wchar_t* name : {L"lumeraplanted.dll", L"xmllite.dll"}) {
    planted.Plant(testsupport::ExeFolder() + L"logcore.dll", name);
  }
  const std::wstring current = planted.Current().file(L"lumeraplanted.dll");

  ky::ModuleLibrary byName;
  const std::uint32_t plantedResult = byName.Load(L"lumeraplanted.dll");
  ky::ModuleLibrary system;
  const std::uint32_t systemResult = system.Load(L"xmllite.dll");
  ky::ModuleLibrary relative;
  const std::uint32_t relativeResult = relative.Load(L".\\lumeraplanted.dll");
  ky::ModuleLibrary full;
  const std::uint32_t fullResult = full.Load(current);

  EXPECT_EQ(plantedResult, static_cast<std::uint32_t>(ERROR_MOD_NOT_FOUND)) << "a bare product name is looked for in System32 only";
  EXPECT_FALSE(byName.Loaded());
  ASSERT_EQ(systemResult, 0u) << "Windows' own xmllite.dll";
  wchar_t systemFolder[MAX_PATH] = {};
  ::GetSystemDirectoryW(systemFolder, MAX_PATH);
  EXPECT_EQ(_wcsicmp(FileOf(system.get()).c_str(), (std::wstring(systemFolder) + L"\\xmllite.dll").c_str()), 0)
      << "loaded from " << std::filesystem::path(FileOf(system.get())).string();
  EXPECT_EQ(relativeResult, static_cast<std::uint32_t>(ERROR_INVALID_PARAMETER)) << "a relative path is refused";
  ASSERT_EQ(fullResult, 0u);
  EXPECT_EQ(_wcsicmp(FileOf(full.get()).c_str(), current.c_str()), 0);

  EXPECT_EQ(ky::SiblingPath(L"kyusers.dll"), ky::ThisModuleFolder() + L"kyusers.dll");
  EXPECT_EQ(ky::SiblingPath(current), current) << "a chosen full path stands";
  EXPECT_EQ(ky::ModuleFolder(reinterpret_cast<HMODULE>(0x10)), L"") << "an unknown module has no folder";
}

TEST(Guard, AnExceptionBecomesTheFailureCodeAndOneErrorLine) {
  testsupport::CapturedLog log;
  EXPECT_EQ(ky::Guarded(L"test::Alloc", ky::kGeneralFailure, []() -> std::uint32_t { throw std::bad_alloc(); }), 31u);
  EXPECT_EQ(ky::Guarded(L"test::Alloc", ky::kGeneralFailure, ky::kOutOfMemory,
                        []() -> std::uint32_t { throw std::bad_alloc(); }),
            14u);
  EXPECT_EQ(ky::Guarded(L"test::Alloc", ky::kGeneralFailure, ky::kOutOfMemory,
                        []() -> std::uint32_t { throw std::runtime_error("disk gone"); }),
            31u);
  EXPECT_FALSE(ky::GuardedVoid(L"test::Unknown", [] { throw 5; }));
  EXPECT_TRUE(ky::GuardedVoid(L"test::Fine", [] {}));
  EXPECT_EQ(ky::Guarded(L"test::Fine", ky::kGeneralFailure, [] { return 7u; }), 7u);

  const auto alloc = log.entriesFor(L"test::Alloc");
  ASSERT_EQ(alloc.size(), 3u);
  EXPECT_EQ(alloc[0].text, L"exception: out of memory");
  EXPECT_EQ(alloc[0].level, logging::kLevelError);
  EXPECT_EQ(alloc[2].text, L"exception: disk gone");
  ASSERT_EQ(log.entriesFor(L"test::Unknown").size(), 1u);
  EXPECT_EQ(log.entriesFor(L"test::Unknown")[0].text, L"exception: unknown");
  EXPECT_TRUE(log.entriesFor(L"test::Fine").empty());
}

}  // namespace
