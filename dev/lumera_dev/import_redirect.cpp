#include "lumera_dev/import_redirect.h"

#include <cstring>
#include <string>

namespace lumera::dev {
namespace {

std::string Lower(const char* text) {
  std::string out = text;
  for (char& c : out) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  if (out.size() > 4 && out.compare(out.size() - 4, 4, ".dll") == 0) out.resize(out.size() - 4);
  return out;
}

bool Patch(ULONG_PTR* slot, void* replacement) {
  DWORD old = 0;
  if (!::VirtualProtect(slot, sizeof *slot, PAGE_READWRITE, &old)) return false;
  *slot = reinterpret_cast<ULONG_PTR>(replacement);
  DWORD ignored = 0;
  ::VirtualProtect(slot, sizeof *slot, old, &ignored);
  return true;
}

}  // namespace

int RedirectImport(HMODULE module, const char* dll, const char* function, void* replacement, void** original) {
  if (module == nullptr || dll == nullptr || function == nullptr || replacement == nullptr) return 0;
  auto* base = reinterpret_cast<BYTE*>(module);
  const auto* dos = reinterpret_cast<const IMAGE_DOS_HEADER*>(base);
  if (dos->e_magic != IMAGE_DOS_SIGNATURE) return 0;
  const auto* nt = reinterpret_cast<const IMAGE_NT_HEADERS*>(base + dos->e_lfanew);
  if (nt->Signature != IMAGE_NT_SIGNATURE) return 0;
  const IMAGE_DATA_DIRECTORY& directory = nt->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_IMPORT];
  if (directory.VirtualAddress == 0 || directory.Size == 0) return 0;
  const std::string wanted = Lower(dll);
  int patched = 0;
  for (auto* import = reinterpret_cast<const IMAGE_IMPORT_DESCRIPTOR*>(base + directory.VirtualAddress);
       import->Name != 0; ++import) {
    if (Lower(reinterpret_cast<const char*>(base + import->Name)) != wanted) continue;
    // Without the name table (a bound image) the names are gone; such a library is left alone.
    if (import->OriginalFirstThunk == 0) continue;
    const auto* names = reinterpret_cast<const IMAGE_THUNK_DATA*>(base + import->OriginalFirstThunk);
    auto* slots = reinterpret_cast<IMAGE_THUNK_DATA*>(base + import->FirstThunk);
    for (; names->u1.AddressOfData != 0; ++names, ++slots) {
      if (IMAGE_SNAP_BY_ORDINAL(names->u1.Ordinal)) continue;
      const auto* byName = reinterpret_cast<const IMAGE_IMPORT_BY_NAME*>(base + names->u1.AddressOfData);
      if (std::strcmp(reinterpret_cast<const char*>(byName->Name), function) != 0) continue;
      void* before = reinterpret_cast<void*>(slots->u1.Function);
      if (before == replacement) continue;
      if (!Patch(reinterpret_cast<ULONG_PTR*>(&slots->u1.Function), replacement)) continue;
      if (original != nullptr) *original = before;
      ++patched;
    }
  }
  return patched;
}

}  // namespace lumera::dev
