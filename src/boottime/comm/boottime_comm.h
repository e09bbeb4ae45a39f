// The "boottimecomm" object: serves the boot-time plug-in's results on "boottimepipe"
// through the host's "connserver" plug-in and broadcasts each newly analysed result.
//
// Init takes "boottime" and "connserver" from the component manager, Start opens the pipe
// and listens to the plug-in, Stop undoes Start, UnInit gives both plug-ins back. Queries
// are answered on the connector's threads.
#pragma once

#include <cstdint>

#include "boottime/comm/payload.h"
#include "common/plugin_ref.h"
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
  // 0 even when "boottime" or "connserver" cannot be had (logged); 0xFFFFFFFF without a
  // host or component manager.
  std::uint32_t Init(IServMain* host) override;
  // Gives back both plug-ins; always 0.
  std::uint32_t UnInit() override;
  // Opens "boottimepipe" and listens to the plug-in: 0, 31 without "connserver", or the
  // connector's code (nothing left open).
  std::uint32_t Start() override;
  // Stops listening and closes the pipe; always 0.
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

  ky::PluginRef<IBootTime> bootTime_;
  ky::PluginRef<pipelink::IConnServer> connServer_;
  pipelink::IConnPipeServer* pipe_ = nullptr;
  bool listening_ = false;
};

}  // namespace boottime
