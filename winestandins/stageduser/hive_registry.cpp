#include "stageduser/hive_registry.h"

#include <functional>
#include <vector>

#include "common/staged_account.h"
#include "common/unique_handle.h"

// The only call that deletes a link key rather than its target; the SDK declares it for
// drivers alone, ntdll.dll exports it to every process.
extern "C" LONG NTAPI NtDeleteKey(HANDLE key);

namespace winestandins::hive {
namespace {

constexpr DWORD kKeyNameChars = kMaxKeyNameChars + 1;

using KeyVisitor = std::function<DWORD(HKEY key, const std::wstring& path)>;
using LinkVisitor = std::function<DWORD(const std::wstring& path, const std::wstring& target)>;

std::wstring Join(const std::wstring& parent, const std::wstring& child) {
  return parent.empty() ? child : parent + L"\\" + child;
}

// The link target of a key opened with REG_OPTION_OPEN_LINK; false for an ordinary key.
bool LinkTargetOf(HKEY key, std::wstring& target) {
  std::vector<wchar_t> buffer(kMaxPathChars + 1, L'\0');
  DWORD type = REG_NONE;
  DWORD bytes = kMaxPathChars * sizeof(wchar_t);
  if (::RegQueryValueExW(key, kLinkValueName, nullptr, &type, reinterpret_cast<BYTE*>(buffer.data()), &bytes) !=
          ERROR_SUCCESS ||
      type != REG_LINK) {
    return false;
  }
  std::wstring text(buffer.data(), bytes / sizeof(wchar_t));
  while (!text.empty() && text.back() == L'\0') text.pop_back();
  target = std::move(text);
  return true;
}

DWORD SubkeyNames(HKEY key, std::vector<std::wstring>& names) {
  for (DWORD index = 0;; ++index) {
    wchar_t name[kKeyNameChars] = {};
    DWORD chars = kKeyNameChars;
    const LSTATUS status = ::RegEnumKeyExW(key, index, name, &chars, nullptr, nullptr, nullptr, nullptr);
    if (status == ERROR_NO_MORE_ITEMS) return ERROR_SUCCESS;
    if (status != ERROR_SUCCESS) return static_cast<DWORD>(status);
    names.emplace_back(name, chars);
  }
}

// Visits the key, then each child: ordinary keys through onKey and their own children, links
// through onLink alone, so that a walk never leaves the tree through a link.
DWORD WalkTree(HKEY key, const std::wstring& path, std::size_t depth, const KeyVisitor& onKey, const LinkVisitor& onLink) {
  if (depth > kMaxDepth) return ERROR_FILE_TOO_LARGE;
  if (DWORD status = onKey(key, path); status != ERROR_SUCCESS) return status;
  std::vector<std::wstring> children;
  if (DWORD status = SubkeyNames(key, children); status != ERROR_SUCCESS) return status;
  for (const std::wstring& name : children) {
    ky::unique_hkey child;
    const LSTATUS opened = ::RegOpenKeyExW(key, name.c_str(), REG_OPTION_OPEN_LINK, KEY_READ, child.put());
    if (opened == ERROR_FILE_NOT_FOUND) continue;  // deleted while the walk went on
    if (opened != ERROR_SUCCESS) return static_cast<DWORD>(opened);
    const std::wstring childPath = Join(path, name);
    std::wstring target;
    const DWORD status = LinkTargetOf(child.get(), target) ? onLink(childPath, target)
                                                           : WalkTree(child.get(), childPath, depth + 1, onKey, onLink);
    if (status != ERROR_SUCCESS) return status;
  }
  return ERROR_SUCCESS;
}

DWORD WalkRoot(const std::wstring& sid, Root root, const KeyVisitor& onKey, const LinkVisitor& onLink) {
  ky::unique_hkey key;
  const LSTATUS opened = ::RegOpenKeyExW(HKEY_USERS, RootKeyOf(sid, root).c_str(), 0, KEY_READ, key.put());
  if (opened != ERROR_SUCCESS) return static_cast<DWORD>(opened);
  return WalkTree(key.get(), L"", 0, onKey, onLink);
}

DWORD ReadValues(HKEY key, std::vector<Value>& values) {
  DWORD count = 0;
  DWORD longestName = 0;
  DWORD longestData = 0;
  LSTATUS status = ::RegQueryInfoKeyW(key, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, &count, &longestName,
                                      &longestData, nullptr, nullptr);
  if (status != ERROR_SUCCESS) return static_cast<DWORD>(status);
  if (longestData > kMaxValueBytes) return ERROR_FILE_TOO_LARGE;
  std::vector<wchar_t> name(kMaxValueNameChars + 1, L'\0');
  std::vector<BYTE> data(longestData > 0 ? longestData : 1);
  for (DWORD index = 0;;) {
    DWORD nameChars = kMaxValueNameChars + 1;
    DWORD type = REG_NONE;
    DWORD bytes = static_cast<DWORD>(data.size());
    status = ::RegEnumValueW(key, index, name.data(), &nameChars, nullptr, &type, data.data(), &bytes);
    if (status == ERROR_NO_MORE_ITEMS) return ERROR_SUCCESS;
    // A value grown since the count was taken: read it again with room for its new size.
    if (status == ERROR_MORE_DATA && bytes > data.size() && bytes <= kMaxValueBytes) {
      data.resize(bytes);
      continue;
    }
    if (status == ERROR_MORE_DATA) return ERROR_FILE_TOO_LARGE;
    if (status != ERROR_SUCCESS) return static_cast<DWORD>(status);
    values.push_back({std::wstring(name.data(), nameChars), type, std::vector<BYTE>(data.begin(), data.begin() + bytes)});
    ++index;
  }
}

DWORD SetValues(HKEY key, const std::vector<Value>& values) {
  static const BYTE kNothing = 0;
  for (const Value& value : values) {
    const LSTATUS status = ::RegSetValueExW(key, value.name.c_str(), 0, value.type,
                                            value.data.empty() ? &kNothing : value.data.data(),
                                            static_cast<DWORD>(value.data.size()));
    if (status != ERROR_SUCCESS) return static_cast<DWORD>(status);
  }
  return ERROR_SUCCESS;
}

}  // namespace

std::wstring RootKeyOf(const std::wstring& sid, Root root) { return root == Root::kClasses ? ClassesKeyOf(sid) : sid; }

bool HiveLoaded(const std::wstring& sid) {
  ky::unique_hkey key;
  return ::RegOpenKeyExW(HKEY_USERS, sid.c_str(), 0, KEY_READ, key.put()) == ERROR_SUCCESS;
}

DWORD CaptureHive(const std::wstring& sid, HiveImage& image) {
  HiveImage captured;
  captured.sid = sid;
  for (const Root root : {Root::kUser, Root::kClasses}) {
    const DWORD status = WalkRoot(
        sid, root,
        [&](HKEY key, const std::wstring& path) {
          Key entry{root, path, {}, {}};
          const DWORD read = ReadValues(key, entry.values);
          if (read == ERROR_SUCCESS) captured.keys.push_back(std::move(entry));
          return read;
        },
        [&](const std::wstring& path, const std::wstring& target) {
          captured.keys.push_back({root, path, {}, target});
          return static_cast<DWORD>(ERROR_SUCCESS);
        });
    if (status == ERROR_FILE_NOT_FOUND && root == Root::kClasses) continue;
    if (status != ERROR_SUCCESS) return status;
  }
  image = std::move(captured);
  return ERROR_SUCCESS;
}

DWORD RestoreHive(const HiveImage& image) {
  for (const Key& key : image.keys) {
    const std::wstring full = Join(RootKeyOf(image.sid, key.root), key.path);
    if (!key.linkTarget.empty()) {
      if (const DWORD status = CreateRegistryLink(HKEY_USERS, full, key.linkTarget); status != ERROR_SUCCESS) {
        return status;
      }
      continue;
    }
    ky::unique_hkey created;
    const LSTATUS status = ::RegCreateKeyExW(HKEY_USERS, full.c_str(), 0, nullptr, REG_OPTION_NON_VOLATILE,
                                             KEY_SET_VALUE, nullptr, created.put(), nullptr);
    if (status != ERROR_SUCCESS) return static_cast<DWORD>(status);
    if (const DWORD set = SetValues(created.get(), key.values); set != ERROR_SUCCESS) return set;
  }
  return ERROR_SUCCESS;
}

DWORD UnloadHive(const std::wstring& sid) {
  for (const Root root : {Root::kUser, Root::kClasses}) {
    const std::wstring rootName = RootKeyOf(sid, root);
    std::vector<std::wstring> links;
    DWORD status = WalkRoot(
        sid, root, [](HKEY, const std::wstring&) { return static_cast<DWORD>(ERROR_SUCCESS); },
        [&](const std::wstring& path, const std::wstring&) {
          links.push_back(Join(rootName, path));
          return static_cast<DWORD>(ERROR_SUCCESS);
        });
    if (status == ERROR_FILE_NOT_FOUND) continue;
    if (status != ERROR_SUCCESS) return status;
    for (const std::wstring& link : links) {
      status = DeleteRegistryLink(HKEY_USERS, link);
      if (status != ERROR_SUCCESS && status != ERROR_FILE_NOT_FOUND) return status;
    }
    status = static_cast<DWORD>(::RegDeleteTreeW(HKEY_USERS, rootName.c_str()));
    if (status != ERROR_SUCCESS && status != ERROR_FILE_NOT_FOUND) return status;
    status = static_cast<DWORD>(::RegDeleteKeyW(HKEY_USERS, rootName.c_str()));
    if (status != ERROR_SUCCESS && status != ERROR_FILE_NOT_FOUND) return status;
  }
  return ERROR_SUCCESS;
}

DWORD CreateRegistryLink(HKEY root, const std::wstring& path, const std::wstring& target) {
  const std::size_t slash = path.rfind(L'\\');
  const std::wstring parentPath = slash == std::wstring::npos ? std::wstring() : path.substr(0, slash);
  const std::wstring leaf = slash == std::wstring::npos ? path : path.substr(slash + 1);
  ky::unique_hkey parent;
  LSTATUS status = parentPath.empty()
                       ? ::RegOpenKeyExW(root, nullptr, 0, KEY_CREATE_SUB_KEY | KEY_READ, parent.put())
                       : ::RegCreateKeyExW(root, parentPath.c_str(), 0, nullptr, REG_OPTION_NON_VOLATILE,
                                           KEY_CREATE_SUB_KEY | KEY_READ, nullptr, parent.put(), nullptr);
  if (status != ERROR_SUCCESS) return static_cast<DWORD>(status);
  ky::unique_hkey link;
  status = ::RegOpenKeyExW(parent.get(), leaf.c_str(), REG_OPTION_OPEN_LINK, KEY_READ | KEY_SET_VALUE, link.put());
  if (status == ERROR_SUCCESS) {
    std::wstring existing;
    if (!LinkTargetOf(link.get(), existing)) return ERROR_ALREADY_EXISTS;
    if (existing == target) return ERROR_SUCCESS;
  } else {
    // Volatile, as Windows makes the classes link afresh each time it loads a hive.
    status = ::RegCreateKeyExW(parent.get(), leaf.c_str(), 0, nullptr, REG_OPTION_CREATE_LINK | REG_OPTION_VOLATILE,
                               KEY_WRITE | KEY_CREATE_LINK | DELETE, nullptr, link.put(), nullptr);
    if (status != ERROR_SUCCESS) return static_cast<DWORD>(status);
  }
  status = ::RegSetValueExW(link.get(), kLinkValueName, 0, REG_LINK, reinterpret_cast<const BYTE*>(target.data()),
                            static_cast<DWORD>(target.size() * sizeof(wchar_t)));
  if (status != ERROR_SUCCESS) (void)DeleteRegistryLink(root, path);
  return static_cast<DWORD>(status);
}

bool ReadLinkTarget(HKEY root, const std::wstring& path, std::wstring& target) {
  ky::unique_hkey key;
  if (::RegOpenKeyExW(root, path.c_str(), REG_OPTION_OPEN_LINK, KEY_READ, key.put()) != ERROR_SUCCESS) return false;
  return LinkTargetOf(key.get(), target);
}

DWORD DeleteRegistryLink(HKEY root, const std::wstring& path) {
  ky::unique_hkey key;
  const LSTATUS status = ::RegOpenKeyExW(root, path.c_str(), REG_OPTION_OPEN_LINK, KEY_READ | DELETE, key.put());
  if (status != ERROR_SUCCESS) return static_cast<DWORD>(status);
  std::wstring target;
  if (!LinkTargetOf(key.get(), target)) return ERROR_INVALID_PARAMETER;
  const LONG deleted = NtDeleteKey(key.get());
  return deleted == 0 ? ERROR_SUCCESS : ERROR_ACCESS_DENIED;
}

}  // namespace winestandins::hive
