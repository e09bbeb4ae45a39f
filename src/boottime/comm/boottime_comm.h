// The "boottimecomm" object: serves the boot-time plug-in's results on "boottimepipe"
// through the host's "connserver" plug-in and broadcasts each newly analysed result.
//
// Init takes "boottime" and "connserver" from the component manager, Start opens the pipe
// and listens to the plug-in, Stop undoes Start, UnInit gives both plug-ins back. Queries
// are answered on the connector's threads.
#pragma once

#include <cstdint>

#include "boottime/comm/payload.h"
#include "lumera/boottime.h"
#include "lumera/pipelink.h"

namespace boottime {

class CBootTimeComm : public IBootTimeComm, public IBootTimeEvents {
 public:
  CBootTimeComm();
  virtual ~CBootTimeComm();  // stops serving if Stop was not called
  CBootTimeComm(const CBootTimeComm&) = delete;
  CBootTimeComm& operator=(const CBootTimeComm&) = delete;

  void* GetInterface(const GUID& iid) override;
  std::uint32_t Init(IServMain* host) override;
  std::uint32_t UnInit() override;
  std::uint32_t Start() override;
  std::uint32_t Stop() override;
  // Broadcasts message 20 with the value to every connected client.
  void OnDataAnalysed(std::uint32_t status) override;

  // The connector's message callback; `context` is the CBootTimeComm.
  static std::uint32_t __cdecl NpcCallback(void* context, const pipelink::PipeMessage* message);

 private:
  std::uint32_t HandleMessage(const pipelink::PipeMessage& message);
  // Fills `payload` for a query and returns the plug-in's code; 31 when it cannot be asked.
  std::uint32_t Query(const pipelink::PipeMessage& message, CPayloadWriter& payload);
  void Answer(const pipelink::PipeMessage& message, std::uint32_t code, const CPayloadWriter& payload);

  IPlgComponentManager* componentManager_ = nullptr;  // the host's; lives as long as the host
  IBootTime* bootTime_ = nullptr;
  pipelink::IConnServer* connServer_ = nullptr;
  pipelink::IConnPipeServer* pipe_ = nullptr;
  bool listening_ = false;
};

}  // namespace boottime
