// The shipped LumeraPlg.dll in build/bin, loaded for real.
#include <gtest/gtest.h>

#include <windows.h>

#include <filesystem>
#include <set>
#include <string>

#include "common/unique_handle.h"
#include "support/programs.h"

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

}  // namespace
