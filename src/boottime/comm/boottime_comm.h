// The "boottimecomm" object: serves the boot-time plug-in's results on "boottimepipe".
#pragma once

#include <cstdint>

#include "lumera/boottime.h"

namespace boottime {

class CBootTimeComm : public IBootTimeComm, public IBootTimeEvents {
 public:
  CBootTimeComm();
  virtual ~CBootTimeComm();
  CBootTimeComm(const CBootTimeComm&) = delete;
  CBootTimeComm& operator=(const CBootTimeComm&) = delete;

  void* GetInterface(const GUID& iid) override;
  std::uint32_t Init(IServMain* host) override;
  std::uint32_t UnInit() override;
  std::uint32_t Start() override;
  std::uint32_t Stop() override;
  void OnDataAnalysed(std::uint32_t status) override;
};

}  // namespace boottime
