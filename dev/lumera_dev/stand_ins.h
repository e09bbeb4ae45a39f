// The staged identity's stand-ins and what they share; InstallStagedIdentity points a
// module's imports at them (staged_identity.h says what each one answers).
#pragma once

#include <windows.h>
#include <shlobj.h>
#include <userenv.h>
#include <wtsapi32.h>

#include <cstddef>

#include "lumera_dev/staged_identity.h"

namespace lumera::dev {

// The system DLL's own function, taken by name: the caller's import of it may be the one
// redirected, so a stand-in never calls the function through an import. Null when the DLL
// or the export is missing. Looked up on each call rather than kept in a function-local
// static, whose thread-safe guard leaks lock handles in a DLL that is unloaded and reloaded.
FARPROC SystemFunction(const wchar_t* dll, const char* name);

template <class Fn>
Fn Original(const wchar_t* dll, const char* name) {
  return reinterpret_cast<Fn>(reinterpret_cast<void*>(SystemFunction(dll, name)));
}

// The system's own `function` from `dll`, typed by its SDK declaration.
#define KY_DEV_ORIGINAL(dll, function) ::lumera::dev::Original<decltype(&::function)>(dll, #function)

// Memory a stand-in hands out (from the process heap, as Wine's own frees it), remembered so
// that the matching free stand-in knows it; FreeStandInBuffer is false for any other pointer.
void* AllocateStandInBuffer(std::size_t bytes);
bool FreeStandInBuffer(void* memory);

// True for a token that is not null or -1 and whose TokenId differs from the process token's:
// a token made for the staged user, not the one the process runs with.
bool IsUserToken(HANDLE token);

// wtsapi32 and advapi32 (session_stand_ins.cpp).
BOOL WINAPI StagedWTSQuerySessionInformationW(HANDLE server, DWORD session, WTS_INFO_CLASS what, LPWSTR* buffer,
                                              DWORD* bytes);
void WINAPI StagedWTSFreeMemory(PVOID memory);
BOOL WINAPI StagedWTSQueryUserToken(ULONG session, PHANDLE token);
BOOL WINAPI StagedLookupAccountNameW(LPCWSTR system, LPCWSTR account, PSID sid, LPDWORD sidBytes, LPWSTR domain,
                                     LPDWORD domainChars, PSID_NAME_USE use);
BOOL WINAPI StagedLookupAccountSidW(LPCWSTR system, PSID sid, LPWSTR name, LPDWORD nameChars, LPWSTR domain,
                                    LPDWORD domainChars, PSID_NAME_USE use);

// shell32 and userenv (profile_stand_ins.cpp).
HRESULT WINAPI StagedSHGetKnownFolderPath(REFKNOWNFOLDERID id, DWORD flags, HANDLE token, PWSTR* path);
HRESULT WINAPI StagedSHGetFolderPathW(HWND window, int csidl, HANDLE token, DWORD flags, LPWSTR path);
BOOL WINAPI StagedGetUserProfileDirectoryW(HANDLE token, LPWSTR folder, LPDWORD chars);
BOOL WINAPI StagedCreateEnvironmentBlock(LPVOID* environment, HANDLE token, BOOL inherit);
BOOL WINAPI StagedDestroyEnvironmentBlock(LPVOID environment);
BOOL WINAPI StagedExpandEnvironmentStringsForUserW(HANDLE token, LPCWSTR source, LPWSTR destination, DWORD chars);

}  // namespace lumera::dev
