// AppAgentDP.dll: the product agent's data about the maker's own applications, loaded at run
// time. Its store is one folder per known application under the agent path given to
// AppAgentDP_Init; each value is one file in that folder, named after the value and holding
// its text as UTF-8. "app_paths" holds a JSON array of the application's installation
// folders.
//
// A transaction holds the application's lock (an exclusive lock file in its folder, waited
// for up to kLockWaitMs) from AppAgentDP_BeginTransaction to AppAgentDP_EndTransaction, across
// threads and processes alike. AppAgentDP_Set writes the value to a temporary file, which
// EndTransaction renames over the value; Get inside the transaction sees the new text.
//
// Every export returns 0 or a Windows error code and never throws: 87 for a null or malformed
// argument (application and value names are plain file names of at most 255 characters),
// 161 for an agent path that is not absolute, 3 when its folder is missing, 1247 before
// AppAgentDP_Init succeeded, 2 for a value that is not there, 223 for a value file above
// kMaxValueBytes, 1460 when the lock could not be had in time.
#pragma once

#include <cstdint>

namespace appagentdp {

inline constexpr std::uint32_t kMaxValueBytes = 1024 * 1024;
inline constexpr std::uint32_t kLockWaitMs = 5000;
inline constexpr wchar_t kLibraryName[] = L"AppAgentDP.dll";
inline constexpr wchar_t kAppPathsValue[] = L"app_paths";

// The application names, in ascending order; given back with Release.
struct IAppNameList {
  virtual std::uint32_t Count() const = 0;
  // The name at `index`, null past the end; valid until Release.
  virtual const wchar_t* Name(std::uint32_t index) const = 0;
  virtual void Release() = 0;

 protected:
  ~IAppNameList() = default;
};

// One application's open data; ended, and freed, by AppAgentDP_EndTransaction.
struct Transaction;

extern "C" {
using AppAgentDP_InitFn = std::uint32_t(__cdecl*)(const wchar_t* agentPath);
using AppAgentDP_GetAppsFn = std::uint32_t(__cdecl*)(IAppNameList** apps);
// Removes the application's folder and every value in it, under its lock.
using AppAgentDP_RemAppFn = std::uint32_t(__cdecl*)(const wchar_t* app);
// *value stays valid until the transaction ends.
using AppAgentDP_GetFn = std::uint32_t(__cdecl*)(Transaction* transaction, const wchar_t* name, const wchar_t** value);
using AppAgentDP_SetFn = std::uint32_t(__cdecl*)(Transaction* transaction, const wchar_t* name, const wchar_t* value);
// Creates the application's folder when it is new.
using AppAgentDP_BeginTransactionFn = std::uint32_t(__cdecl*)(const wchar_t* app, Transaction** transaction);
// Commits the values set and releases the lock; the first failed rename's code, the
// transaction freed whatever the result.
using AppAgentDP_EndTransactionFn = std::uint32_t(__cdecl*)(Transaction* transaction);
}

}  // namespace appagentdp
