// The "boottimecommclient" object: queries "boottimepipe" for another component.
#pragma once

#include <cstdint>

#include "lumera/boottime.h"

namespace boottime {

class CBootTimeCommClient : public IBootTimeCommClient,
                            public IBootTimeCommClientAsync,
                            public IBootTimeEvents,
                            public IBootTimeResponse {
 public:
  CBootTimeCommClient();
  virtual ~CBootTimeCommClient();
  CBootTimeCommClient(const CBootTimeCommClient&) = delete;
  CBootTimeCommClient& operator=(const CBootTimeCommClient&) = delete;

  void* GetInterface(const GUID& iid) override;
  std::uint32_t Init(IServMain* host) override;
  std::uint32_t UnInit() override;
  std::uint32_t Start() override;
  std::uint32_t Stop() override;

  std::uint32_t GetBootTime(std::uint32_t* milliseconds) override;
  std::uint32_t GetTotalBootImpact(BootCounters* total) override;
  std::uint32_t GetBootImpact(ky::IList<ProcessImpact>* impacts, const ProcessKey* key) override;
  std::uint32_t GetDiskSpeed(DiskSpeed* speed) override;
  std::uint32_t AddListener(IBootTimeEvents* listener) override;
  std::uint32_t RemoveListener(IBootTimeEvents* listener) override;
  void OnDataAnalysed(std::uint32_t status) override;

  std::uint32_t GetBootTimeAsync() override;
  std::uint32_t GetTotalBootImpactAsync() override;
  std::uint32_t GetBootImpactAsync(const ProcessKey* key) override;
  std::uint32_t GetDiskSpeedAsync() override;
  std::uint32_t AddResponseObserver(IBootTimeResponse* observer) override;
  std::uint32_t RemoveResponseObserver(IBootTimeResponse* observer) override;

  void OnGetBootTime(std::uint32_t, std::uint32_t) override {}
  void OnGetTotalBootImpact(std::uint32_t, const BootCounters&) override {}
  void OnGetBootImpact(std::uint32_t, const ky::IList<ProcessImpact>&) override {}
  void OnGetDiskSpeed(std::uint32_t, const DiskSpeed&) override {}
};

}  // namespace boottime
