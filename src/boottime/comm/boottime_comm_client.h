// The "boottimecommclient" object: queries "boottimepipe" for another component, through
// pipelink.dll loaded from this module's folder.
//
// Init loads the connector, Start connects (5000 ms), Stop disconnects, UnInit unloads.
// Synchronous queries block for at most 5000 ms; answers to asynchronous ones and the
// server's broadcasts arrive on the connector's thread and go to the observers registered
// at that moment; an observer must not make a synchronous query from inside its call, since
// the thread that would read the reply is the one running it.
#pragma once

#include <cstdint>
#include <memory>

#include "boottime/boot_time_listeners.h"
#include "boottime/comm/connector_loader.h"
#include "boottime/comm/payload.h"
#include "common/callback_list.h"
#include "lumera/boottime.h"
#include "lumera/pipelink.h"

namespace boottime {

class CBootTimeCommClient : public IBootTimeCommClient,
                            public IBootTimeCommClientAsync,
                            public IBootTimeEvents,
                            public IBootTimeResponse {
 public:
  CBootTimeCommClient();
  virtual ~CBootTimeCommClient();  // Stop and UnInit when the host did not
  CBootTimeCommClient(const CBootTimeCommClient&) = delete;
  CBootTimeCommClient& operator=(const CBootTimeCommClient&) = delete;

  void* GetInterface(const GUID& iid) override;
  // Loads and starts the connector: 0, or the failing step's code with nothing loaded.
  std::uint32_t Init(IServMain* host) override;
  std::uint32_t UnInit() override;
  // Connects to "boottimepipe": 0 (also when already connected), 21 before Init, or the
  // connector's code.
  std::uint32_t Start() override;
  std::uint32_t Stop() override;

  // Each query beside its asynchronous form. A synchronous one returns 0, 13 for a null
  // output, 2 when the request could not be sent, or the server's code, and a short reply
  // fills the output as far as it goes; an asynchronous one returns the post's code, and its
  // answer goes to the response observers.
  std::uint32_t GetBootTime(std::uint32_t* milliseconds) override;
  std::uint32_t GetBootTimeAsync() override;
  // Sends the boot-time query and reads its reply as counters: only `kernel` is written.
  std::uint32_t GetTotalBootImpact(BootCounters* total) override;
  std::uint32_t GetTotalBootImpactAsync() override;
  std::uint32_t GetBootImpact(ky::IList<ProcessImpact>* impacts, const ProcessKey* key) override;
  std::uint32_t GetBootImpactAsync(const ProcessKey* key) override;
  std::uint32_t GetDiskSpeed(DiskSpeed* speed) override;
  std::uint32_t GetDiskSpeedAsync() override;
  std::uint32_t GetBootHistory(std::uint32_t count, ky::IList<std::string>* records) override;
  std::uint32_t GetBootHistoryAsync(std::uint32_t count) override;
  // Observers of the server's data-analysed broadcast.
  std::uint32_t AddListener(IBootTimeEvents* listener) override;
  std::uint32_t RemoveListener(IBootTimeEvents* listener) override;
  void OnDataAnalysed(std::uint32_t status) override;
  std::uint32_t AddResponseObserver(IBootTimeResponse* observer) override;
  std::uint32_t RemoveResponseObserver(IBootTimeResponse* observer) override;

  // Log the answer and pass it to every registered IBootTimeResponse.
  void OnGetBootTime(std::uint32_t code, std::uint32_t milliseconds) override;
  void OnGetTotalBootImpact(std::uint32_t code, const BootCounters& total) override;
  void OnGetBootImpact(std::uint32_t code, const ky::IList<ProcessImpact>& impacts) override;
  void OnGetDiskSpeed(std::uint32_t code, const DiskSpeed& speed) override;
  void OnGetBootHistory(std::uint32_t code, const ky::IList<std::string>& records) override;

  // The connector's message callback; `context` is the CBootTimeCommClient.
  static std::uint32_t __cdecl NpcCallback(void* context, const pipelink::PipeMessage* message);

 private:
  std::uint32_t HandleMessage(const pipelink::PipeMessage& message);
  // Gives a reply back to the connector.
  struct ReplyDeleter {
    pipelink::IConnPipeClient* pipe;
    void operator()(pipelink::PipeMessage* message) const { pipe->FreeReply(message); }
  };
  using Reply = std::unique_ptr<pipelink::PipeMessage, ReplyDeleter>;

  // Sends one query (with `request` as its payload when given) and on 0 hands the reply to
  // read(CPayloadReader&); 2 on a failed send, the reply's result, or 31 on an exception.
  template <class Read>
  std::uint32_t Query(const wchar_t* function, std::uint32_t id, const wchar_t* name, const CPayloadWriter* request,
                      Read read);
  // Sends one query; on 0 *reply holds the answer. 2 on a failed send, else the reply's result.
  std::uint32_t SendQuery(std::uint32_t id, const wchar_t* name, const void* payload, std::uint32_t size, Reply* reply);
  std::uint32_t PostQuery(std::uint32_t id, const wchar_t* name, const void* payload, std::uint32_t size);

  CConnectorLibrary connector_;
  pipelink::IConnPipeClient* pipe_ = nullptr;
  CallbackList<IBootTimeResponse*> responses_;
  BootTimeListeners events_;
};

}  // namespace boottime
