// The shipped LumeraPlg.dll in build/bin, loaded for real.
#include <gtest/gtest.h>

#include <windows.h>

#include <filesystem>
#include <set>
#include <string>

#include "common/unique_handle.h"
#include "support/programs.h"
#include "lumera/boottime.h"
#include "lumera/interface_ids.h"

namespace {

std::set<std::string> ExportedNames(HMODULE module) {
  auto* base = reinterpret_cast<const BYTE*>(module);
  auto* dos = reinterpret_cast<const IMAGE_DOS_HEADER*>(base);
  auto* nt = reinterpret_cast<const IMAGE_NT_HEADERS*>(base + dos->e_lfanew);
  const IMAGE_DATA_DIRECTORY& dir = nt->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_EXPORT];
  std::set<std::string> names;
  if (dir.VirtualAddress == 0) return names;
  auto* exports = reinterpret_cast<const IMAGE_EXPORT_DIRECTORY*>(base + dir.VirtualAddress);
  auto* nameRvas = reinterpret_cast<const DWORD*>(base + exports->AddressOfNames);
  for (DWORD i = 0; i < exports->NumberOfNames; ++i) names.insert(reinterpret_cast<const char*>(base + nameRvas[i]));
  if (exports->NumberOfFunctions != exports->NumberOfNames) names.insert("<exports by ordinal only>");
  return names;
}

TEST(ModuleDll, ExportsExactlyTheFactoryPair) {
  ky::unique_module module(::LoadLibraryW((testsupport::BinFolder() / L"LumeraPlg.dll").c_str()));
  ASSERT_TRUE(module) << ::GetLastError();
  EXPECT_EQ(ExportedNames(module.get()), (std::set<std::string>{"KyCreateObject", "KyDestroyObject"}));
}

TEST(ModuleDll, CreatesAndDestroysEveryObjectThroughItsExports) {
  ky::unique_module module(::LoadLibraryW((testsupport::BinFolder() / L"LumeraPlg.dll").c_str()));
  ASSERT_TRUE(module);
  auto create = reinterpret_cast<KyCreateObjectFn>(reinterpret_cast<void*>(::GetProcAddress(module.get(), "KyCreateObject")));
  auto destroy = reinterpret_cast<KyDestroyObjectFn>(reinterpret_cast<void*>(::GetProcAddress(module.get(), "KyDestroyObject")));
  ASSERT_NE(create, nullptr);
  ASSERT_NE(destroy, nullptr);
  for (const wchar_t* name : {L"boottime", L"boottimecomm", L"boottimecommclient"}) {
    void* object = nullptr;
    ASSERT_EQ(create(name, &lumera::ids::IServPlugin, &object), 0u) << name;
    auto* plugin = static_cast<IServPlugin*>(object);
    EXPECT_EQ(plugin->Init(nullptr), plugin->Init(nullptr)) << "a refused Init leaves nothing behind: " << name;
    EXPECT_EQ(plugin->UnInit(), 0u);
    destroy(name, object);
  }
}

}  // namespace
