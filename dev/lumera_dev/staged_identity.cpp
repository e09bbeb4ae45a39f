#include "lumera_dev/staged_identity.h"

#include <iterator>
#include <mutex>
#include <set>

#include "common/critical_section.h"
#include "common/unique_handle.h"
#include "lumera_dev/console_session.h"
#include "lumera_dev/environment_block.h"
#include "lumera_dev/import_redirect.h"
#include "lumera_dev/registry_text.h"
#include "lumera_dev/stand_ins.h"

namespace lumera::dev {
namespace {

struct Redirect {
  const char* dll;
  const char* function;
  void* replacement;
};

template <class Fn>
void* Address(Fn* function) {
  return reinterpret_cast<void*>(function);
}

bool TokenId(HANDLE token, LUID& id) {
  TOKEN_STATISTICS statistics{};
  DWORD bytes = 0;
  if (!::GetTokenInformation(token, TokenStatistics, &statistics, sizeof statistics, &bytes)) return false;
  id = statistics.TokenId;
  return true;
}

// Buffers the stand-ins handed out, so that their free functions know which are theirs.
class OwnedBuffers {
 public:
  void* Allocate(std::size_t bytes) {
    void* memory = ::HeapAlloc(::GetProcessHeap(), HEAP_ZERO_MEMORY, bytes);
    if (memory == nullptr) return nullptr;
    std::lock_guard hold(lock_);
    owned_.insert(memory);
    return memory;
  }
  bool Free(void* memory) {
    {
      std::lock_guard hold(lock_);
      if (owned_.erase(memory) == 0) return false;
    }
    ::HeapFree(::GetProcessHeap(), 0, memory);
    return true;
  }

 private:
  ky::CriticalSection lock_;
  std::set<void*> owned_;
};

// A namespace-scope object, made when the image is: a function-local static would take
// libstdc++'s guard, whose lock handles a DLL such as kyusers.dll leaves behind at each unload.
OwnedBuffers g_buffers;

OwnedBuffers& Buffers() { return g_buffers; }

}  // namespace

FARPROC SystemFunction(const wchar_t* dll, const char* name) {
  HMODULE module = ::GetModuleHandleW(dll);
  // Only reached from a stand-in, never under the loader lock. The library stays loaded for
  // the life of the process, as the stand-ins that call into it do.
  if (module == nullptr) module = ::LoadLibraryExW(dll, nullptr, LOAD_LIBRARY_SEARCH_SYSTEM32);
  return module != nullptr ? ::GetProcAddress(module, name) : nullptr;
}

void* AllocateStandInBuffer(std::size_t bytes) { return Buffers().Allocate(bytes); }

bool FreeStandInBuffer(void* memory) { return memory != nullptr && Buffers().Free(memory); }

bool IsUserToken(HANDLE token) {
  if (token == nullptr || token == INVALID_HANDLE_VALUE) return false;
  LUID id{};
  if (!TokenId(token, id)) return false;
  ky::unique_handle own;
  LUID ownId{};
  if (!::OpenProcessToken(::GetCurrentProcess(), TOKEN_QUERY, own.put()) || !TokenId(own.get(), ownId)) return false;
  return id.LowPart != ownId.LowPart || id.HighPart != ownId.HighPart;
}

bool ReadStagedIdentity(StagedIdentity& identity) {
  if (!RunningUnderWine()) return false;
  const std::wstring key = DevelopmentKeyPath();
  StagedIdentity read;
  read.user = ReadRegistryText(HKEY_LOCAL_MACHINE, key, kStagedUserValue);
  read.sid = ReadRegistryText(HKEY_LOCAL_MACHINE, key, kStagedUserSidValue);
  if (read.user.empty() || read.sid.empty()) return false;
  const std::wstring profileList = kProfileListKey;
  read.profile = ReadRegistryText(HKEY_LOCAL_MACHINE, profileList + L"\\" + read.sid, L"ProfileImagePath");
  if (read.profile.empty()) {
    std::wstring profiles = ReadRegistryText(HKEY_LOCAL_MACHINE, profileList, L"ProfilesDirectory");
    if (profiles.empty()) profiles = L"%SystemDrive%\\Users";
    read.profile = profiles + L"\\" + read.user;
  }
  if (read.profile.find(L'%') != std::wstring::npos) read.profile = ExpandVariables(read.profile, MachineVariables());
  while (read.profile.size() > 3 && read.profile.back() == L'\\') read.profile.pop_back();
  identity = std::move(read);
  return true;
}

int InstallStagedIdentity(HMODULE module) {
  if (module == nullptr || !RunningUnderWine()) return 0;
  const Redirect redirects[] = {
      {"wtsapi32.dll", "WTSQuerySessionInformationW", Address(&StagedWTSQuerySessionInformationW)},
      {"wtsapi32.dll", "WTSFreeMemory", Address(&StagedWTSFreeMemory)},
      {"wtsapi32.dll", "WTSQueryUserToken", Address(&StagedWTSQueryUserToken)},
      {"advapi32.dll", "LookupAccountNameW", Address(&StagedLookupAccountNameW)},
      {"advapi32.dll", "LookupAccountSidW", Address(&StagedLookupAccountSidW)},
      {"shell32.dll", "SHGetKnownFolderPath", Address(&StagedSHGetKnownFolderPath)},
      {"shell32.dll", "SHGetFolderPathW", Address(&StagedSHGetFolderPathW)},
      {"userenv.dll", "GetUserProfileDirectoryW", Address(&StagedGetUserProfileDirectoryW)},
      {"userenv.dll", "CreateEnvironmentBlock", Address(&StagedCreateEnvironmentBlock)},
      {"userenv.dll", "DestroyEnvironmentBlock", Address(&StagedDestroyEnvironmentBlock)},
      {"userenv.dll", "ExpandEnvironmentStringsForUserW", Address(&StagedExpandEnvironmentStringsForUserW)},
  };
  int patched = 0;
  for (const Redirect& redirect : redirects) {
    patched += RedirectImport(module, redirect.dll, redirect.function, redirect.replacement);
  }
  return patched;
}

}  // namespace lumera::dev
