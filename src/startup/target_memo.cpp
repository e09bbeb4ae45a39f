#include "startup/target_memo.h"

#include <windows.h>

namespace startup {
namespace {

thread_local CTargetMemo* t_current = nullptr;

}  // namespace

CTargetMemo* CTargetMemo::Current() { return t_current; }

bool CTargetMemo::Exists(const std::wstring& path) {
  const auto known = exists_.find(path);
  if (known != exists_.end()) return known->second;
  const bool exists = ::GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES;
  exists_.emplace(path, exists);
  return exists;
}

const TargetDescription* CTargetMemo::Find(const std::wstring& target) const {
  const auto known = described_.find(target);
  return known == described_.end() ? nullptr : &known->second;
}

void CTargetMemo::Remember(const std::wstring& target, TargetDescription description) {
  described_.insert_or_assign(target, std::move(description));
}

const std::wstring* CTargetMemo::FindLocation(bool isUser, const std::wstring& location) const {
  const auto known = locations_.find({isUser, location});
  return known == locations_.end() ? nullptr : &known->second;
}

void CTargetMemo::RememberLocation(bool isUser, const std::wstring& location, std::wstring expanded) {
  locations_.insert_or_assign({isUser, location}, std::move(expanded));
}

CTargetMemoScope::CTargetMemoScope() : outer_(t_current) {
  if (outer_ == nullptr) t_current = &own_;
}

CTargetMemoScope::~CTargetMemoScope() {
  if (outer_ == nullptr) t_current = nullptr;
}

}  // namespace startup
