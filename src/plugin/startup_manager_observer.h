// Notifications of the startup manager; the boot-time plug-in takes none of them.
#pragma once

#include <cstdint>

struct IStartupManagerObserver {
  virtual void OnStartupAppsChanged() = 0;
  virtual void OnAppListReceived(std::uint32_t count) = 0;
  virtual void OnReportSent(std::uint32_t result) = 0;
  virtual void OnUpdateRequested(std::uint32_t result) = 0;

 protected:
  ~IStartupManagerObserver() = default;
};
