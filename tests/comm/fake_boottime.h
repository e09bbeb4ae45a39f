// A boot-time plug-in whose answers and result codes a test sets.
#pragma once

#include <atomic>
#include <mutex>
#include <string>
#include <vector>

#include "common/callback_list.h"
#include "lumera/boottime.h"
#include "lumera/interface_ids.h"

namespace testing_boottime {

class FakeBootTime final : public boottime::IBootTime {
 public:
  // Result codes of the four queries; 0 answers with the values below.
  std::atomic<std::uint32_t> bootTimeCode{0}, totalCode{0}, impactCode{0}, diskCode{0};
  std::uint32_t bootTime = 31337;
  boottime::BootCounters total{10, 20, 30, 40, 50};
  std::vector<boottime::ProcessImpact> impacts;
  boottime::DiskSpeed disk{1.5, 97.25, 42.125};
  std::atomic<std::uint32_t> historyCode{0};
  std::vector<std::string> history;  // oldest first

  boottime::ProcessKey LastKey() {
    std::lock_guard hold(lock_);
    return lastKey_;
  }
  std::size_t ListenerCount() { return listeners_.Count(); }

  void* GetInterface(const GUID& iid) override {
    if (KyIsEqualId(iid, lumera::ids::IBootTime) || KyIsEqualId(iid, lumera::ids::IKyBaseInterface)) return this;
    return nullptr;
  }
  std::uint32_t Init(IServMain*) override { return 0; }
  std::uint32_t UnInit() override { return 0; }
  std::uint32_t Start() override { return 0; }
  std::uint32_t Stop() override { return 0; }

  std::uint32_t GetBootTime(std::uint32_t* ms) override {
    if (bootTimeCode == 0) *ms = bootTime;
    return bootTimeCode;
  }
  std::uint32_t GetTotalBootImpact(boottime::BootCounters* out) override {
    if (totalCode == 0) *out = total;
    return totalCode;
  }
  std::uint32_t GetBootImpact(ky::IList<boottime::ProcessImpact>* out, const boottime::ProcessKey* key) override {
    {
      std::lock_guard hold(lock_);
      lastKey_ = *key;
    }
    if (impactCode != 0) return impactCode;
    for (const auto& impact : impacts) out->Add(impact);
    return 0;
  }
  std::uint32_t GetDiskSpeed(boottime::DiskSpeed* out) override {
    if (diskCode == 0) *out = disk;
    return diskCode;
  }
  std::uint32_t GetBootHistory(std::uint32_t count, ky::IList<std::string>* out) override {
    if (historyCode != 0) return historyCode;
    const std::size_t first = count == 0 || count > history.size() ? 0 : history.size() - count;
    for (std::size_t i = first; i < history.size(); ++i) out->Add(history[i]);
    return 0;
  }
  std::uint32_t AddListener(boottime::IBootTimeEvents* l) override { return listeners_.Register(l); }
  std::uint32_t RemoveListener(boottime::IBootTimeEvents* l) override { return listeners_.Unregister(l); }
  void OnDataAnalysed(std::uint32_t status) override {
    listeners_.ForEach([status](boottime::IBootTimeEvents* l) { l->OnDataAnalysed(status); });
  }

 private:
  std::mutex lock_;
  boottime::ProcessKey lastKey_;
  CallbackList<boottime::IBootTimeEvents*> listeners_;
};

}  // namespace testing_boottime
