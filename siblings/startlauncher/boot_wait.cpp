#include "boot_wait.h"

#include <atomic>
#include <memory>
#include <string>

#include "common/log.h"
#include "common/module_library.h"
#include "common/unique_handle.h"
#include "lumera/boottime.h"
#include "lumera/interface_ids.h"

namespace startlauncher {
namespace {

constexpr wchar_t kModuleName[] = L"LumeraPlg.dll";
constexpr wchar_t kClientName[] = L"boottimecommclient";
// The client answers a failed send with the same 2 as a module without results: only a second
// such answer on a fresh connection is taken as the module's own.
constexpr int kNoResultAnswers = 2;

struct LauncherHost final : IServMain {
  const wchar_t* GetHostName() override { return L"StartLauncher.exe"; }
  IPlgComponentManager* GetComponentManager() override { return nullptr; }
  IEventQueue* GetEventQueue() override { return nullptr; }
};

// Sets the event on the module's data-analysed broadcast; called on the connector's thread.
class AnalysedListener final : public boottime::IBootTimeEvents {
 public:
  void OnDataAnalysed(std::uint32_t status) override {
    status_ = status;
    ::SetEvent(event_.get());
  }
  HANDLE Event() const { return event_.get(); }
  std::uint32_t Status() const { return status_; }

 private:
  ky::unique_handle event_{::CreateEventW(nullptr, TRUE, FALSE, nullptr)};
  std::atomic<std::uint32_t> status_{boottime::kStatusNotYetKnown};
};

// One connection to "boottimepipe"; everything it made is undone when it goes.
class Connection {
 public:
  Connection(ky::KyFactoryLibrary& module, AnalysedListener& listener) : module_(module), listener_(listener) {}
  ~Connection() {
    if (client_ == nullptr) return;
    if (started_) (void)client_->RemoveListener(&listener_);
    (void)client_->Stop();
    (void)client_->UnInit();
    module_.Destroy(kClientName, client_);
  }
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  // 0 when connected, else the failing step's code.
  std::uint32_t Open() {
    void* object = nullptr;
    std::uint32_t result = module_.Create(kClientName, lumera::ids::IBootTimeCommClient, &object);
    if (result != 0 || object == nullptr) return result != 0 ? result : ERROR_GEN_FAILURE;
    client_ = static_cast<boottime::IBootTimeCommClient*>(object);
    if ((result = client_->Init(&host_)) != 0 || (result = client_->Start()) != 0) return result;
    started_ = true;
    (void)client_->AddListener(&listener_);
    return 0;
  }
  boottime::IBootTimeCommClient* Client() const { return client_; }

 private:
  ky::KyFactoryLibrary& module_;
  AnalysedListener& listener_;
  LauncherHost host_;
  boottime::IBootTimeCommClient* client_ = nullptr;
  bool started_ = false;
};

}  // namespace

BootWait WaitForBootEnd(DWORD waitMs) {
  KY_TRACE(L"startlauncher::WaitForBootEnd");
  const ULONGLONG deadline = ::GetTickCount64() + waitMs;
  ky::KyFactoryLibrary module;
  AnalysedListener listener;
  std::unique_ptr<Connection> connection;
  int noResults = 0;
  std::uint32_t lastCode = 0;
  ULONGLONG nextQuery = 0;
  for (;;) {
    if (!module.Loaded()) {
      const std::uint32_t loaded = module.Load(ky::ThisModuleFolder() + kModuleName);
      if (loaded != 0 && loaded != lastCode) KY_LOG(logging::kLevelInfo, L"module not loaded 0x%x", loaded);
      lastCode = loaded;
    }
    if (module.Loaded() && connection == nullptr) {
      auto fresh = std::make_unique<Connection>(module, listener);
      const std::uint32_t opened = fresh->Open();
      if (opened == 0) {
        connection = std::move(fresh);
        nextQuery = 0;
      } else if (opened != lastCode) {
        KY_LOG(logging::kLevelInfo, L"boottimepipe not reached 0x%x", opened);
      }
      lastCode = opened;
    }
    if (connection != nullptr && ::GetTickCount64() >= nextQuery) {
      nextQuery = ::GetTickCount64() + kBootRequeryMs;
      std::uint32_t milliseconds = 0;
      const std::uint32_t answer = connection->Client()->GetBootTime(&milliseconds);
      if (answer == boottime::kStatusAvailable) {
        KY_LOG(logging::kLevelInfo, L"boot measured: %u ms", milliseconds);
        return BootWait::kMeasured;
      }
      if (answer == boottime::kStatusNoResults && ++noResults >= kNoResultAnswers) {
        KY_LOG(logging::kLevelInfo, L"the module has no boot time for this boot");
        return BootWait::kNoResult;
      }
      if (answer != boottime::kStatusNotYetKnown) connection.reset();
      if (answer != boottime::kStatusNoResults) noResults = 0;
    }
    const ULONGLONG now = ::GetTickCount64();
    if (now >= deadline) break;
    const DWORD wait = static_cast<DWORD>(deadline - now < kBootPollMs ? deadline - now : kBootPollMs);
    if (::WaitForSingleObject(listener.Event(), wait) == WAIT_OBJECT_0) {
      KY_LOG(logging::kLevelInfo, L"data analysed, status %u", listener.Status());
      return listener.Status() == boottime::kStatusAvailable ? BootWait::kMeasured : BootWait::kNoResult;
    }
  }
  KY_LOG(logging::kLevelInfo, L"no boot end within %u ms: going on", waitMs);
  return BootWait::kTimedOut;
}

}  // namespace startlauncher
