// The agent's store on disk: <agent path>\<application>\<value name>, one UTF-8 file per value.
#pragma once

#include <windows.h>

#include <cstdint>
#include <map>
#include <shared_mutex>
#include <string>
#include <vector>

#include "common/unique_handle.h"

namespace appagentdp {

inline constexpr wchar_t kLockFileName[] = L".lock";
inline constexpr wchar_t kPendingSuffix[] = L".pending";

// A plain file name: not empty, at most 255 characters, no separators or wildcards, no leading dot.
bool IsPlainName(const wchar_t* name);

class AgentStore {
 public:
  // 0, 161 for a relative path, 3 when the folder is missing.
  std::uint32_t Init(const std::wstring& agentPath);
  // Sorted application folder names; 0 or the listing's error.
  std::uint32_t Apps(std::vector<std::wstring>& names) const;
  std::uint32_t Remove(const std::wstring& app) const;
  // Path of the application's folder with a trailing backslash; empty before Init.
  std::wstring AppFolder(const std::wstring& app) const;

 private:
  mutable std::shared_mutex lock_;
  std::wstring root_;
};

AgentStore& Store();

// One application's open data.
class AgentTransaction {
 public:
  AgentTransaction(std::wstring folder, ky::unique_file lock) : folder_(std::move(folder)), lock_(std::move(lock)) {}
  // Opens the folder (created when new) and takes its lock, waiting up to `waitMs`.
  static std::uint32_t Begin(const std::wstring& folder, std::uint32_t waitMs, AgentTransaction** out);

  std::uint32_t Get(const std::wstring& name, const wchar_t** value);
  std::uint32_t Set(const std::wstring& name, const std::wstring& value);
  // Renames every pending value over its file; the first failure's code.
  std::uint32_t Commit();

 private:
  std::wstring folder_;
  ky::unique_file lock_;
  std::map<std::wstring, std::wstring> pending_;  // value name -> text set in this transaction
  std::map<std::wstring, std::wstring> read_;     // texts handed out by Get, alive until the end
};

// Reads at most `maxBytes` of the file as UTF-8; 0, 2/3 when missing, 223 when larger.
std::uint32_t ReadValueFile(const std::wstring& path, std::size_t maxBytes, std::wstring& text);

}  // namespace appagentdp
