// CTargetMemo: what one listing or one report has learnt about the files its entries start,
// keyed by the expanded full path, so that a store of thousands of records naming one program
// probes, reads and identifies that program once. A memo lives for one listing on one thread
// (CTargetMemoScope) and is never kept beyond it, so it never serves another user's listing
// nor hides a file that changed between two reports.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <unordered_map>
#include <utility>

namespace startup {

// A target as Application::Init describes it; `found` false when it has no version
// information (or cannot be read), the texts then empty.
struct TargetDescription {
  bool found = false;
  std::wstring path;  // the long form of the target
  std::wstring description;
  std::wstring company;
  std::wstring product;
  std::wstring qid;
};

class CTargetMemo {
 public:
  // The memo of the listing running on this thread; null outside every CTargetMemoScope.
  static CTargetMemo* Current();

  // Whether anything exists at the expanded full path; the file system is asked once per path.
  bool Exists(const std::wstring& path);

  // The description remembered for the expanded target, or null.
  const TargetDescription* Find(const std::wstring& target) const;
  void Remember(const std::wstring& target, TargetDescription description);

  // An item location as ExpandPath gave it in the user's (`isUser`) or the machine's
  // environment, or null.
  const std::wstring* FindLocation(bool isUser, const std::wstring& location) const;
  void RememberLocation(bool isUser, const std::wstring& location, std::wstring expanded);

  // Distinct paths probed and targets described so far.
  std::size_t Probes() const { return exists_.size(); }
  std::size_t Descriptions() const { return described_.size(); }

 private:
  std::unordered_map<std::wstring, bool> exists_;
  std::unordered_map<std::wstring, TargetDescription> described_;
  std::map<std::pair<bool, std::wstring>, std::wstring> locations_;
};

// Makes a fresh memo the thread's current one while it lives. A scope opened inside another
// keeps the outer memo, so a report that lists through a helper describes each target once.
class CTargetMemoScope {
 public:
  CTargetMemoScope();
  ~CTargetMemoScope();
  CTargetMemoScope(const CTargetMemoScope&) = delete;
  CTargetMemoScope& operator=(const CTargetMemoScope&) = delete;

  CTargetMemo& Memo() { return outer_ != nullptr ? *outer_ : own_; }

 private:
  CTargetMemo* outer_;
  CTargetMemo own_;
};

}  // namespace startup
