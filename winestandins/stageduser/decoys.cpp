#include "stageduser/decoys.h"

#include <windows.h>
#include <shlobj.h>

#include <cstring>
#include <ctime>
#include <filesystem>
#include <string_view>
#include <system_error>

#include "common/file_bytes.h"
#include "common/text_convert.h"
#include "lumera/storeappslist.h"
#include "picojson.h"
#include "startup/startup_item.h"
#include "startup/startup_items.h"
#include "startup/storage_document.h"

namespace winestandins::staging {
namespace {

constexpr wchar_t kRunKey[] = L"Software\\Microsoft\\Windows\\CurrentVersion\\Run";
constexpr wchar_t kApprovedFolderKey[] =
    L"Software\\Microsoft\\Windows\\CurrentVersion\\Explorer\\StartupApproved\\StartupFolder";
constexpr wchar_t kApprovedRunKey[] = L"Software\\Microsoft\\Windows\\CurrentVersion\\Explorer\\StartupApproved\\Run";
constexpr wchar_t kUserClasses[] = L"Software\\Classes\\";
constexpr wchar_t kStorageFile[] = L"Nexalon\\Lumera\\Storage.json";
constexpr wchar_t kPackageVersion[] = L"1.0.0.0";
constexpr wchar_t kDecoyDisplayName[] = L"Decoy Store App";
constexpr wchar_t kDecoyPublisherName[] = L"Decoy Publisher";
constexpr DWORD kTaskEnabled = 2;           // Windows' StartupTaskState Enabled
constexpr std::uint32_t kWordDisabled = 3;  // a StartupApproved value's "disabled" word
constexpr DWORD kApprovedBytes = 12;        // the word and the FILETIME of the change

std::wstring Failed(const std::wstring& what, DWORD error) { return what + L" failed (error " + std::to_wstring(error) + L")"; }

bool Folder(int csidl, std::wstring& out, std::wstring& reason) {
  wchar_t path[MAX_PATH] = {};
  const HRESULT result = ::SHGetFolderPathW(nullptr, csidl | CSIDL_FLAG_CREATE, nullptr, SHGFP_TYPE_CURRENT, path);
  if (FAILED(result)) {
    reason = Failed(L"SHGetFolderPathW(" + std::to_wstring(csidl) + L")", static_cast<DWORD>(result));
    return false;
  }
  out = path;
  return true;
}

bool CopyProgram(const std::wstring& program, const std::wstring& target, std::wstring& reason) {
  std::error_code error;
  std::filesystem::create_directories(std::filesystem::path(target).parent_path(), error);
  if (error || !::CopyFileW(program.c_str(), target.c_str(), FALSE)) {
    reason = Failed(L"copying " + program + L" to " + target, error ? static_cast<DWORD>(error.value()) : ::GetLastError());
    return false;
  }
  return true;
}

bool SetValue(HKEY root, const std::wstring& key, const wchar_t* name, DWORD type, const void* data, DWORD bytes,
              std::wstring& reason) {
  const LSTATUS status = ::RegSetKeyValueW(root, key.c_str(), name, type, data, bytes);
  if (status != ERROR_SUCCESS) {
    reason = Failed(L"writing HKCU\\" + key + L" " + name, static_cast<DWORD>(status));
    return false;
  }
  return true;
}

bool SetText(const std::wstring& key, const wchar_t* name, const std::wstring& text, std::wstring& reason) {
  return SetValue(HKEY_CURRENT_USER, key, name, REG_SZ, text.c_str(),
                  static_cast<DWORD>((text.size() + 1) * sizeof(wchar_t)), reason);
}

// A StartupApproved value marking an entry disabled: the state word and the time of the change.
bool SetDisabled(const wchar_t* key, const wchar_t* name, std::wstring& reason) {
  BYTE approved[kApprovedBytes] = {};
  FILETIME now{};
  ::GetSystemTimeAsFileTime(&now);
  std::memcpy(approved, &kWordDisabled, sizeof kWordDisabled);
  std::memcpy(approved + sizeof kWordDisabled, &now, sizeof now);
  return SetValue(HKEY_CURRENT_USER, key, name, REG_BINARY, approved, kApprovedBytes, reason);
}

bool WriteText(const std::wstring& path, const std::string& text, std::wstring& reason) {
  const DWORD error = ReplaceFileContent(path, std::vector<std::uint8_t>(text.begin(), text.end()));
  if (error != ERROR_SUCCESS) reason = Failed(L"writing " + path, error);
  return error == ERROR_SUCCESS;
}

std::string Manifest(const std::wstring& executable) {
  const std::string exe = ky::WideToUtf8(executable);
  const std::string task = ky::WideToUtf8(kDecoyTaskId);
  return "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n"
         "<Package xmlns=\"http://schemas.microsoft.com/appx/manifest/foundation/windows10\"\n"
         "         xmlns:uap5=\"http://schemas.microsoft.com/appx/manifest/uap/windows10/5\"\n"
         "         IgnorableNamespaces=\"uap5\">\n"
         "  <Identity Name=\"" + ky::WideToUtf8(kDecoyPackageName) + "\" Publisher=\"CN=Decoy Publisher\" Version=\"" +
         ky::WideToUtf8(kPackageVersion) + "\" ProcessorArchitecture=\"x64\" />\n"
         "  <Properties>\n"
         "    <DisplayName>" + ky::WideToUtf8(kDecoyDisplayName) + "</DisplayName>\n"
         "    <PublisherDisplayName>" + ky::WideToUtf8(kDecoyPublisherName) + "</PublisherDisplayName>\n"
         "  </Properties>\n"
         "  <Applications>\n"
         "    <Application Id=\"App\" Executable=\"" + exe + "\" EntryPoint=\"Windows.FullTrustApplication\">\n"
         "      <Extensions>\n"
         "        <uap5:Extension Category=\"windows.startupTask\">\n"
         "          <uap5:StartupTask TaskId=\"" + task + "\" Enabled=\"true\" DisplayName=\"Decoy startup task\" />\n"
         "        </uap5:Extension>\n"
         "      </Extensions>\n"
         "    </Application>\n"
         "  </Applications>\n"
         "</Package>\n";
}

bool WriteStorePackage(const std::wstring& program, const std::wstring& decoys, std::vector<std::wstring>& written,
                       std::wstring& reason) {
  const std::wstring fullName = std::wstring(kDecoyPackageName) + L"_" + kPackageVersion + L"_x64__" + kDecoyPublisherId;
  const std::wstring family = std::wstring(kDecoyPackageName) + L"_" + kDecoyPublisherId;
  const std::wstring folder = decoys + L"\\" + kDecoyPackageName;
  const std::wstring executable = std::wstring(kDecoyPackageName) + L".exe";
  if (!CopyProgram(program, folder + L"\\" + executable, reason) ||
      !WriteText(folder + L"\\AppxManifest.xml", Manifest(executable), reason)) {
    return false;
  }
  const std::wstring package = kUserClasses + std::wstring(storeapps::kPackagesKeyPath) + L"\\" + fullName;
  const std::wstring task = kUserClasses + std::wstring(startup::kStoreAppsKeyPath) + L"\\" + family + L"\\" + kDecoyTaskId;
  if (!SetText(package, storeapps::kRootFolderValue, folder, reason) ||
      !SetText(package, storeapps::kDisplayNameValue, kDecoyDisplayName, reason) ||
      !SetText(package, storeapps::kPublisherDisplayNameValue, kDecoyPublisherName, reason) ||
      !SetValue(HKEY_CURRENT_USER, task, L"State", REG_DWORD, &kTaskEnabled, sizeof kTaskEnabled, reason)) {
    return false;
  }
  written.push_back(L"Store package HKCU\\" + package + L" with task " + kDecoyTaskId);
  return true;
}

bool WriteStoredRecord(const std::wstring& program, const std::wstring& decoys, const std::wstring& roaming,
                       std::vector<std::wstring>& written, std::wstring& reason) {
  const std::wstring target = decoys + L"\\" + kDecoyStoredName + L".exe";
  if (!CopyProgram(program, target, reason) || !SetText(kRunKey, kDecoyStoredName, L"\"" + target + L"\"", reason) ||
      !SetDisabled(kApprovedRunKey, kDecoyStoredName, reason)) {
    return false;
  }
  const std::wstring path = roaming + L"\\" + kStorageFile;
  std::error_code created;
  std::filesystem::create_directories(std::filesystem::path(path).parent_path(), created);
  picojson::value document{picojson::object()};
  std::vector<std::uint8_t> bytes;
  const DWORD read = ReadBoundedFile(path, kMaxStorageBytes, bytes);
  if (read == ERROR_SUCCESS) {
    const std::string error = picojson::parse(document, std::string(bytes.begin(), bytes.end()));
    if (!error.empty() || !startup::storage::AppendKeepsContent(document, startup::kCategoryDisabled)) {
      reason = path + L" is not a store this tool may add to; left as it is";
      return false;
    }
  } else if (read != ERROR_FILE_NOT_FOUND && read != ERROR_PATH_NOT_FOUND) {
    reason = Failed(L"reading " + path, read);
    return false;
  }
  auto record = std::make_shared<startup::StartupItem>();
  record->name = kDecoyStoredName;
  record->path = L"\"" + target + L"\"";
  record->location = std::wstring(L"HKEY_CURRENT_USER\\") + kRunKey;
  record->isUser = 1;
  const startup::StartupItemList records{record};
  startup::storage::RemoveItems(document, records, startup::kCategoryDisabled);
  startup::storage::AppendItems(document, records, startup::kCategoryDisabled, static_cast<std::int64_t>(std::time(nullptr)));
  if (!WriteText(path, document.serialize(true), reason)) return false;
  written.push_back(L"Storage.json record " + std::wstring(kDecoyStoredName) + L" in " + path +
                    L", its Run value disabled in StartupApproved");
  return true;
}

}  // namespace

bool WriteDecoys(const std::wstring& program, std::vector<std::wstring>& written, std::wstring& reason) {
  if (::GetFileAttributesW(program.c_str()) == INVALID_FILE_ATTRIBUTES) {
    reason = L"no decoy program " + program;
    return false;
  }
  std::wstring local, roaming, startupFolder;
  if (!Folder(CSIDL_LOCAL_APPDATA, local, reason) || !Folder(CSIDL_APPDATA, roaming, reason) ||
      !Folder(CSIDL_STARTUP, startupFolder, reason)) {
    return false;
  }
  const std::wstring decoys = local + L"\\" + kDecoyFolderName;

  const std::wstring runProgram = decoys + L"\\" + kDecoyRunValue + L".exe";
  if (!CopyProgram(program, runProgram, reason) || !SetText(kRunKey, kDecoyRunValue, L"\"" + runProgram + L"\"", reason)) {
    return false;
  }
  written.push_back(L"Run value HKCU\\" + std::wstring(kRunKey) + L" " + kDecoyRunValue);

  const std::wstring startupProgram = startupFolder + L"\\" + kDecoyStartupFile;
  if (!CopyProgram(program, startupProgram, reason) || !SetDisabled(kApprovedFolderKey, kDecoyStartupFile, reason)) {
    return false;
  }
  written.push_back(L"Startup-folder file " + startupProgram + L" and its StartupApproved value");

  return WriteStorePackage(program, decoys, written, reason) &&
         WriteStoredRecord(program, decoys, roaming, written, reason);
}

}  // namespace winestandins::staging
