// startupctl.exe list [--json]
// startupctl.exe disable|enable|delay NAME... [--location TEXT]
// startupctl.exe report [--boot-time MS]
#include <windows.h>
#include <shlobj.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <string>
#include <system_error>
#include <vector>

#include "common/log.h"
#include "common/text_convert.h"
#include "common/unique_handle.h"
#include "lumera_dev/console_user_main.h"
#include "app_details.h"
#include "picojson.h"
#include "plugin/productinfo_loader.h"
#include "startup/apps_filter.h"
#include "startup/command_target.h"
#include "startup/target_memo.h"
#include "report_command.h"
#include "startup_catalog.h"

namespace {

constexpr int kUsageError = ERROR_INVALID_PARAMETER;

void Print(FILE* stream, const std::wstring& text) {
  const std::string bytes = ky::WideToUtf8(text + L"\n");
  std::fwrite(bytes.data(), 1, bytes.size(), stream);
  std::fflush(stream);
}

int Usage() {
  Print(stderr, L"usage: startupctl list [--json]\n"
                L"       startupctl disable|enable|delay NAME... [--location TEXT]\n"
                L"       startupctl report [--boot-time MS]");
  return kUsageError;
}

// The launcher starts a delayed entry once the module has measured the boot.
constexpr wchar_t kDelayedShown[] = L"delayed (starts after the boot)";

const wchar_t* Scope(const startup::StartupItem& item) { return item.isUser != 0 ? L"user" : L"machine"; }

// Whose entries are shown: the user logged on at the console, as the service sees them.
std::wstring Whose(const velora::utils::CUserProfile* user) {
  if (user == nullptr) return L"no one is logged on: the machine's entries only";
  return L"user " + user->UserName() + L" (" + user->Sid() + L")";
}

// The product's own programs (its delayed-start entry among them) stay out of the list as they
// stay out of the report: the apps filter's folders, from the agent's data.
std::vector<startupctl::Entry> WithoutOwnPrograms(std::vector<startupctl::Entry> entries) {
  startup::CAppsFilter filter([] { return static_cast<IProductInfo*>(plugin::AcquireProductInfo()); });
  filter.Init();
  plugin::ReleaseProductInfo();
  std::erase_if(entries, [&](const startupctl::Entry& entry) {
    std::wstring target;
    return startup::ResolveCommandTarget(entry.item->path, target, *startup::EnvironmentOf(*entry.item)) &&
           filter.Matches(target);
  });
  return entries;
}

int List(startupctl::CStartupCatalog& catalog, const velora::utils::CUserProfile* user, bool json) {
  // Thousands of stored records may name one program: it is looked at once per listing.
  const startup::CTargetMemoScope described;
  const std::vector<startupctl::Entry> entries = WithoutOwnPrograms(catalog.List());
  if (json) {
    picojson::array list;
    for (const auto& entry : entries) {
      picojson::object object;
      object["name"] = picojson::value(ky::WideToUtf8(entry.item->name));
      object["kind"] = picojson::value(ky::WideToUtf8(startupctl::KindName(entry.kind)));
      object["location"] = picojson::value(ky::WideToUtf8(entry.item->location));
      object["command"] = picojson::value(ky::WideToUtf8(entry.item->path));
      object["scope"] = picojson::value(ky::WideToUtf8(Scope(*entry.item)));
      if (entry.item->isUser != 0 && user != nullptr) {
        object["user"] = picojson::value(ky::WideToUtf8(user->UserName()));
        object["sid"] = picojson::value(ky::WideToUtf8(user->Sid()));
      }
      object["state"] = picojson::value(ky::WideToUtf8(entry.state));
      const startupctl::AppDetails details = startupctl::DetailsOf(entry);
      object["description"] = picojson::value(ky::WideToUtf8(details.description));
      object["company"] = picojson::value(ky::WideToUtf8(details.company));
      object["product"] = picojson::value(ky::WideToUtf8(details.product));
      object["qid"] = picojson::value(ky::WideToUtf8(details.qid));
      object["disabledBySystem"] = picojson::value(details.disabledBySystem);
      if (entry.kind == startup::kSourceStoreApp) object["package"] = picojson::value(ky::WideToUtf8(entry.package));
      list.push_back(picojson::value(std::move(object)));
    }
    const std::string text = picojson::value(std::move(list)).serialize(true) + "\n";
    std::fwrite(text.data(), 1, text.size(), stdout);
    std::fflush(stdout);
    return 0;
  }
  // One write for the whole table: a console under Wine costs milliseconds per write.
  std::wstring table = Whose(user) + L"\n";
  for (const auto& entry : entries) {
    const startupctl::AppDetails details = startupctl::DetailsOf(entry);
    table += entry.item->name + L"\t" + startupctl::KindName(entry.kind) + L"\t" + Scope(*entry.item) + L"\t" +
             (entry.state == startupctl::kStateDelayed ? kDelayedShown : entry.state) + L"\t" + entry.item->location + L"\t" + entry.item->path + L"\t" + details.description +
             L"\t" + details.company + L"\t" + details.qid + (entry.package.empty() ? L"" : L"\t" + entry.package) +
             L"\n";
  }
  table.pop_back();
  Print(stdout, table);
  return 0;
}

// One name as the catalog finds it in `entries`; the action's result, 1168 or a usage error.
int ActOn(startupctl::CStartupCatalog& catalog, const std::vector<startupctl::Entry>& entries,
          const std::wstring& verb, const std::wstring& name, const std::wstring& location) {
  const std::vector<startupctl::Entry> found = startupctl::CStartupCatalog::Find(entries, name, location);
  if (found.empty()) {
    Print(stderr, L"no startup entry named " + name + (location.empty() ? L"" : L" at " + location));
    return ERROR_NOT_FOUND;
  }
  if (found.size() > 1) {
    Print(stderr, L"several startup entries are named " + name + L"; choose one with --location:");
    for (const auto& entry : found) Print(stderr, L"  " + entry.item->location);
    return kUsageError;
  }
  const startupctl::Entry& entry = found.front();
  std::wstring message;
  const std::uint32_t result = catalog.Apply(entry, verb, message);
  const std::wstring what = entry.item->name + L" (" + startupctl::KindName(entry.kind) + L", " + entry.item->location + L")";
  if (result != 0) {
    Print(stderr, verb + L" " + what + L": " + message + L", error " + std::to_wstring(result));
    return static_cast<int>(result);
  }
  Print(stdout, verb + L" " + what + L": " + message);
  return 0;
}

// Several names share one listing, taken before the first change: a name acts on its own
// entry only, so the others' changes cannot make its listing stale. A name given twice acts
// once. The exit code is the first failure's, the others are still tried.
int Act(startupctl::CStartupCatalog& catalog, const std::wstring& verb, const std::vector<std::wstring>& args) {
  std::vector<std::wstring> names(args.begin() + 2, args.end());
  std::wstring location;
  if (names.size() >= 3 && names[names.size() - 2] == L"--location") {
    location = names.back();
    names.resize(names.size() - 2);
  }
  if (names.empty()) return Usage();
  for (const auto& name : names) {
    if (name.empty() || name.rfind(L"--", 0) == 0) return Usage();
  }
  const std::vector<startupctl::Entry> entries = catalog.List();
  std::vector<std::wstring> done;
  int exitCode = 0;
  for (const auto& name : names) {
    if (std::find(done.begin(), done.end(), name) != done.end()) continue;
    done.push_back(name);
    const int result = ActOn(catalog, entries, verb, name, location);
    if (exitCode == 0) exitCode = result;
  }
  return exitCode;
}

int Run(const std::vector<std::wstring>& args) {
  if (args.size() < 2) return Usage();
  const std::wstring& command = args[1];
  if (command == L"report") return startupctl::Report(args);
  const bool list = command == L"list";
  if (list && !(args.size() == 2 || (args.size() == 3 && args[2] == L"--json"))) return Usage();
  if (!list && command != L"disable" && command != L"enable" && command != L"delay") return Usage();

  // The user's entries and store are reached as the service reaches them, through the user
  // logged on at the console, whoever runs this tool.
  startup::CStartupItems sources;
  const velora::utils::CUserProfile* user = sources.User().get();
  std::wstring folder;
  auto& store = startup::storage::CStartupItemsStorage::Instance();
  if (startup::storage::UserStorageFolder(user, folder) == 0) {
    store.Init(folder + startup::storage::kStorageFileName);
  } else if (!list) {
    Print(stderr, user == nullptr ? L"no one is logged on: nothing to change"
                                  : L"cannot create the folder of Storage.json of " + user->UserName());
    return user == nullptr ? ERROR_NO_TOKEN : ERROR_PATH_NOT_FOUND;
  }
  startup::StartupAppsActionExec exec;
  startupctl::CStartupCatalog catalog(sources, exec, store);
  return list ? List(catalog, user, args.size() == 3) : Act(catalog, command, args);
}

}  // namespace

int main() {
  return lumera::dev::ConsoleUserMain("startupctl", Run, [] { return static_cast<int>(ERROR_OUTOFMEMORY); },
                                      ERROR_GEN_FAILURE);
}
