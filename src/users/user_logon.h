// CUserLogon: the process-wide logon tracker. It listens to the host's "sessionchange"
// plug-in, keeps only console connect, session logon and session logoff, and runs each on
// the host's serial execution, one at a time, turning them into OnLogon / OnLogoff calls of
// its observers. It also keeps the name and application-data folder of the current user.
//
// Init/Uninit and Start/Stop nest: only the first Init/Start and the last Uninit/Stop act.
// Observers are called on the serial execution's thread (see lumera/sessionchange.h).
#pragma once

#include <windows.h>
#include <wtsapi32.h>

#include <atomic>
#include <cstdint>
#include <string>

#include "common/callback_list.h"
#include "common/critical_section.h"
#include "common/plugin_ref.h"
#include "lumera/ky_base.h"
#include "lumera/sessionchange.h"

class CUserLogon final : public ISessionChangeEvents {
 public:
  static constexpr wchar_t kPluginName[] = L"sessionchange";
  static constexpr wchar_t kWorkItemName[] = L"CUserLogon_ProcessSessionChange";

  // How the tracker reads a session's user and domain; the system's by default.
  struct SessionInfoApi {
    decltype(&::WTSQuerySessionInformationW) query = &::WTSQuerySessionInformationW;
    decltype(&::WTSFreeMemory) free = &::WTSFreeMemory;
  };

  CUserLogon();
  explicit CUserLogon(SessionInfoApi api);
  ~CUserLogon() override;
  CUserLogon(const CUserLogon&) = delete;
  CUserLogon& operator=(const CUserLogon&) = delete;

  // The process-wide tracker, created on first use, or the one a ScopedOverride installed.
  static CUserLogon& Instance();

  // Points Instance() at `replacement` for the override's life and restores the previous
  // tracker afterwards.
  class ScopedOverride {
   public:
    explicit ScopedOverride(CUserLogon& replacement);
    ~ScopedOverride();
    ScopedOverride(const ScopedOverride&) = delete;
    ScopedOverride& operator=(const ScopedOverride&) = delete;

   private:
    CUserLogon* previous_;
  };

  // 1 on success; 0 (logged "failed") when servMain is null.
  [[nodiscard]] int Init(IServMain* servMain);
  void Uninit();
  // Connects to "sessionchange" and the host's serial execution; false (logged, undone)
  // when any of them cannot be had.
  [[nodiscard]] bool Start();
  void Stop();

  // Whether the users library reports a console user now.
  [[nodiscard]] static bool IsUserLogged();

  std::uint32_t OnSessionChange(std::uint32_t time, std::uint32_t event, WTSSESSION_NOTIFICATION* notification) override;
  // Runs on the serial execution; takes ownership of `notification` (an 8-byte copy).
  void ProcessSessionChange(std::uint32_t time, std::uint32_t event, WTSSESSION_NOTIFICATION* notification);

  void GetCurrentUser();
  void GetCurrentUserAppData();
  void OnLogon(std::uint32_t time, const wchar_t* user);
  void OnLogoff(std::uint32_t time, const wchar_t* user);

  // 0, or 183 when the observer is already registered and active.
  [[nodiscard]] std::uint32_t RegisterObserver(IUserLogonObserver* observer);
  CallbackList<IUserLogonObserver*>& Observers() { return observers_; }

  // Guards UserName() and AppDataFolder() readers on other threads.
  ky::CriticalSection& Lock() { return lock_; }
  std::wstring UserName();
  std::wstring AppDataFolder();
  bool LogonPending() const { return logonPending_.load() != 0; }

 private:
  void UndoStart();
  // Reads `what` of `session`; false when the query failed (last error kept).
  bool QuerySession(DWORD session, WTS_INFO_CLASS what, std::wstring& out, bool& empty);

  SessionInfoApi api_;
  std::atomic<std::uint8_t> logonPending_{0};
  std::wstring userName_;
  std::wstring appDataFolder_;
  IServMain* servMain_ = nullptr;
  IEventQueue* eventQueue_ = nullptr;
  std::atomic<ISerialExecution*> serialExecution_{nullptr};
  ky::PluginRef<ISessionChangePlugin> sessionPlugin_;
  ky::CriticalSection lock_;
  CallbackList<IUserLogonObserver*> observers_;
  std::atomic<std::int32_t> initCount_{0};
  std::atomic<std::int32_t> startCount_{0};
};
