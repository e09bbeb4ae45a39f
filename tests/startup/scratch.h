// Scratch registry keys and store files for the startup tests, removed afterwards.
#pragma once

#include <windows.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "common/unique_handle.h"
#include "startup/startup_items.h"
#include "startup/startup_storage.h"
#include "support/registry_values.h"
#include "support/scoped_override.h"
#include "support/scratch_folder.h"

namespace testing_startup {

using testsupport::UniqueSuffix;

// HKCU\Software\LumeraTest<n>\...\CurrentVersion\Run, deleted with everything under it.
class ScratchRunKey {
 public:
  explicit ScratchRunKey(const std::wstring& middle = L"") {
    top_ = L"Software\\LumeraTest" + UniqueSuffix();
    subkey_ = top_ + middle + L"\\CurrentVersion\\Run";
    ky::unique_hkey key;
    EXPECT_EQ(::RegCreateKeyExW(HKEY_CURRENT_USER, subkey_.c_str(), 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, key.put(),
                                nullptr),
              ERROR_SUCCESS)
        << "scratch key " << testing::PrintToString(subkey_);
  }
  ~ScratchRunKey() { ::RegDeleteTreeW(HKEY_CURRENT_USER, top_.c_str()); }
  ScratchRunKey(const ScratchRunKey&) = delete;
  ScratchRunKey& operator=(const ScratchRunKey&) = delete;

  const std::wstring& Subkey() const { return subkey_; }
  const std::wstring& Top() const { return top_; }
  std::wstring Location() const { return L"HKEY_CURRENT_USER\\" + subkey_; }

  LSTATUS Set(const std::wstring& name, DWORD type, const std::wstring& data) const {
    return testsupport::SetRegText(HKEY_CURRENT_USER, subkey_, name, data, type);
  }
  // The value's type and text; type 0 when it is missing.
  DWORD Get(const std::wstring& name, std::wstring* text = nullptr) const {
    DWORD type = 0;
    wchar_t buffer[1024] = {};
    DWORD bytes = sizeof(buffer) - sizeof(wchar_t);
    if (::RegGetValueW(HKEY_CURRENT_USER, subkey_.c_str(), name.c_str(), RRF_RT_ANY | RRF_NOEXPAND, &type, buffer,
                       &bytes) != ERROR_SUCCESS) {
      return 0;
    }
    if (text != nullptr) *text = buffer;
    return type;
  }

 private:
  std::wstring top_;
  std::wstring subkey_;
};

// Points the process-wide store at `path` until it goes, then back at the file it used before.
class StoreOverride : public testsupport::ScopedOverride<std::wstring> {
 public:
  explicit StoreOverride(const std::wstring& path)
      : ScopedOverride([] { return startup::storage::CStartupItemsStorage::Instance().Path(); },
                       [](const std::wstring& p) { startup::storage::CStartupItemsStorage::Instance().Init(p); }, path) {}
};

// Points the process-wide store at a file in its own scratch folder while it lives.
class ScratchStore {
 public:
  std::wstring Path() const { return folder_.file(L"Storage.json"); }
  bool Exists() const { return ::GetFileAttributesW(Path().c_str()) != INVALID_FILE_ATTRIBUTES; }
  std::string Text() const { return testsupport::ReadFileBytes(Path()); }
  void Write(const std::string& text) const { testsupport::WriteFileBytes(Path(), text); }
  startup::StartupItemList Load(const char* section) const {
    startup::StartupItemList items;
    (void)startup::storage::CStartupItemsStorage::Instance().LoadStartupItems(section, items);
    return items;
  }

 private:
  testsupport::ScratchFolder folder_;
  StoreOverride store_{folder_.file(L"Storage.json")};
};

// A store whose file can never be written: its folder does not exist.
[[nodiscard]] inline StoreOverride PointStoreAtUnwritablePath() {
  return StoreOverride(L"C:\\no-such-folder-lumera\\sub\\Storage.json");
}

inline startup::StartupItemPtr MakeItem(const std::wstring& name, const std::wstring& location,
                                        const std::wstring& path, std::int32_t isUser = 1) {
  auto item = std::make_shared<startup::StartupItem>();
  item->name = name;
  item->location = location;
  item->path = path;
  item->isUser = isUser;
  return item;
}

// Every item the sources list.
inline std::vector<startup::StartupItemPtr> Enumerate(const startup::StartupSourceList& sources) {
  std::vector<startup::StartupItemPtr> all;
  for (const auto& [enumerator, path] : sources) {
    startup::StartupItemList items;
    (void)enumerator->GetStartupApps(path, items);
    all.insert(all.end(), items.begin(), items.end());
  }
  return all;
}

// The item of that name, null when none has it.
inline startup::StartupItemPtr Named(const std::vector<startup::StartupItemPtr>& items, const std::wstring& name) {
  const auto it = std::find_if(items.begin(), items.end(), [&](const auto& item) { return item->name == name; });
  return it == items.end() ? nullptr : *it;
}

}  // namespace testing_startup
