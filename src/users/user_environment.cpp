#include "users/user_environment.h"

#include <userenv.h>

#include <cwchar>

#include "common/log.h"
#include "common/module_library.h"

namespace velora::utils {
namespace {

// An environment block has no stated length; one beyond this is taken as broken.
constexpr std::size_t kMaxBlockChars = 1 << 20;
constexpr wchar_t kPathName[] = L"Path";

std::wstring Trim(const std::wstring& text) {
  const std::size_t first = text.find_first_not_of(L" \t\"");
  if (first == std::wstring::npos) return {};
  const std::size_t last = text.find_last_not_of(L" \t\"");
  return text.substr(first, last - first + 1);
}

}  // namespace

std::vector<std::wstring> PathOfBlock(const wchar_t* block, std::size_t chars) {
  std::vector<std::wstring> folders;
  if (block == nullptr) return folders;
  const std::size_t nameChars = std::size(kPathName) - 1;
  for (std::size_t at = 0; at < chars && block[at] != L'\0';) {
    std::size_t end = at;
    while (end < chars && block[end] != L'\0') ++end;
    const std::wstring entry(block + at, end - at);
    if (entry.size() > nameChars && entry[nameChars] == L'=' && _wcsnicmp(entry.c_str(), kPathName, nameChars) == 0) {
      std::size_t from = nameChars + 1;
      while (from <= entry.size()) {
        std::size_t semicolon = entry.find(L';', from);
        if (semicolon == std::wstring::npos) semicolon = entry.size();
        std::wstring folder = Trim(entry.substr(from, semicolon - from));
        if (!folder.empty()) folders.push_back(std::move(folder));
        from = semicolon + 1;
      }
    }
    at = end + 1;
  }
  return folders;
}

std::shared_ptr<const CEnvironment> CEnvironment::Machine() {
  auto environment = std::shared_ptr<CEnvironment>(new CEnvironment());
  environment->available_ = true;
  environment->ReadBlock();
  return environment;
}

std::shared_ptr<const CEnvironment> CEnvironment::ForUser(std::shared_ptr<const ky::unique_handle> token) {
  if (!token || !token->valid()) return Unavailable();
  auto environment = std::shared_ptr<CEnvironment>(new CEnvironment());
  environment->available_ = true;
  environment->token_ = std::move(token);
  environment->ReadBlock();
  return environment;
}

std::shared_ptr<const CEnvironment> CEnvironment::Unavailable() {
  return std::shared_ptr<CEnvironment>(new CEnvironment());
}

void CEnvironment::ReadBlock() {
  KY_TRACE(L"velora::utils::CEnvironment::ReadBlock");
  unique_environment_block block;
  ::SetLastError(0);
  if (!::CreateEnvironmentBlock(block.put(), token_ ? token_->get() : nullptr, FALSE)) {
    KY_LOG(logging::kLevelError, L"CreateEnvironmentBlock failed 0x%x", ky::LastErrorOr(ERROR_GEN_FAILURE));
    return;
  }
  path_ = PathOfBlock(static_cast<const wchar_t*>(block.get()), kMaxBlockChars);
}

std::uint32_t CEnvironment::Expand(const std::wstring& text, std::wstring& out) const {
  if (!available_) return ERROR_NO_TOKEN;
  if (text.size() >= kEnvironmentTextChars) return ERROR_FILENAME_EXCED_RANGE;
  if (text.find(L'%') == std::wstring::npos) {
    out = text;
    return 0;
  }
  std::vector<wchar_t> buffer(kEnvironmentTextChars, L'\0');
  ::SetLastError(0);
  if (!::ExpandEnvironmentStringsForUserW(token_ ? token_->get() : nullptr, text.c_str(), buffer.data(),
                                          kEnvironmentTextChars)) {
    return ky::LastErrorOr(ERROR_GEN_FAILURE);
  }
  buffer.back() = L'\0';
  out = buffer.data();
  return 0;
}

std::uint32_t CEnvironment::FindOnPath(const std::wstring& name, std::wstring& found) const {
  if (!available_) return ERROR_NO_TOKEN;
  if (name.empty() || name.find_first_of(L"\\/:") != std::wstring::npos) return ERROR_FILE_NOT_FOUND;
  for (const std::wstring& listed : path_) {
    std::wstring folder;
    if (Expand(listed, folder) != 0 || folder.empty()) continue;
    if (folder.back() != L'\\') folder.push_back(L'\\');
    const std::wstring candidate = folder + name;
    if (candidate.size() >= kEnvironmentTextChars || !ky::IsAbsolutePath(candidate)) continue;
    const DWORD attributes = ::GetFileAttributesW(candidate.c_str());
    if (attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) == 0) {
      found = candidate;
      return 0;
    }
  }
  return ERROR_FILE_NOT_FOUND;
}

}  // namespace velora::utils
