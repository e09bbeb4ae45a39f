#include "good_client.h"

#include <cstdio>

#include "common/unique_handle.h"
#include "lumera/boottime.h"
#include "lumera/interface_ids.h"

namespace hostile {
namespace {

constexpr wchar_t kObjectName[] = L"boottimecommclient";
constexpr DWORD kAnswerWaitMs = 6000;  // the client's own 5000 ms plus the trip back

struct ToolHost final : IServMain {
  const wchar_t* GetHostName() override { return L"pipe_hostile.exe"; }
  IPlgComponentManager* GetComponentManager() override { return nullptr; }
  IEventQueue* GetEventQueue() override { return nullptr; }
};

class Answers final : public boottime::IBootTimeResponse {
 public:
  HANDLE Event() const { return event_.get(); }
  std::uint32_t Code() const { return code_; }
  void OnGetBootTime(std::uint32_t code, std::uint32_t) override { Done(code); }
  void OnGetTotalBootImpact(std::uint32_t code, const boottime::BootCounters&) override { Done(code); }
  void OnGetBootImpact(std::uint32_t code, const ky::IList<boottime::ProcessImpact>&) override { Done(code); }
  void OnGetDiskSpeed(std::uint32_t code, const boottime::DiskSpeed&) override { Done(code); }

 private:
  void Done(std::uint32_t code) {
    code_ = code;
    ::SetEvent(event_.get());
  }
  ky::unique_handle event_{::CreateEventW(nullptr, FALSE, FALSE, nullptr)};
  std::atomic<std::uint32_t> code_{0};
};

constexpr std::uint32_t kNoAnswer = 0xFFFFFFFF;

std::uint32_t AskSync(boottime::IBootTimeCommClient* client, int kind) {
  switch (kind) {
    case 0: {
      std::uint32_t ms = 0;
      return client->GetBootTime(&ms);
    }
    case 1: {
      boottime::BootCounters total;
      return client->GetTotalBootImpact(&total);
    }
    case 2: {
      ky::List<boottime::ProcessImpact> impacts;
      const boottime::ProcessKey key{0, 0, L"explorer.exe"};
      return client->GetBootImpact(&impacts, &key);
    }
    default: {
      boottime::DiskSpeed speed;
      return client->GetDiskSpeed(&speed);
    }
  }
}

// The server's code, or kNoAnswer when the post failed or nothing came back in time.
std::uint32_t AskAsync(boottime::IBootTimeCommClientAsync* client, Answers& answers, int kind) {
  ::ResetEvent(answers.Event());
  const boottime::ProcessKey key{0, 0, L""};
  const std::uint32_t posted = kind == 0   ? client->GetBootTimeAsync()
                               : kind == 1 ? client->GetTotalBootImpactAsync()
                               : kind == 2 ? client->GetBootImpactAsync(&key)
                                           : client->GetDiskSpeedAsync();
  if (posted != 0 || ::WaitForSingleObject(answers.Event(), kAnswerWaitMs) != WAIT_OBJECT_0) return kNoAnswer;
  return answers.Code();
}

}  // namespace

bool RunGoodClient(const ky::KyFactoryLibrary& module, HANDLE stop, GoodTotals& totals) {
  void* object = nullptr;
  if (module.Create(kObjectName, lumera::ids::IBootTimeCommClient, &object) != 0 || object == nullptr) {
    ++totals.asked;
    return false;
  }
  auto* client = static_cast<boottime::IBootTimeCommClient*>(object);
  auto* async = static_cast<boottime::IBootTimeCommClientAsync*>(client->GetInterface(lumera::ids::IBootTimeCommClientAsync));
  ToolHost host;
  Answers answers;
  const std::uint32_t init = async != nullptr ? client->Init(&host) : kNoAnswer;
  const std::uint32_t start = init == 0 ? client->Start() : kNoAnswer;
  const bool connected = start == 0;
  if (!connected) {
    // Counted as a query not answered; what failed tells a busy pipe from a refused session.
    std::fprintf(stderr, "pipe_hostile: a good client did not connect (Init %u, Start %u, last error %lu)\n", init, start,
                 ::GetLastError());
    ++totals.asked;
  } else {
    async->AddResponseObserver(&answers);
    for (int n = 0; n == 0 || ::WaitForSingleObject(stop, 0) == WAIT_TIMEOUT; ++n) {
      const int kind = n % 4;
      const bool synchronous = (n / 4) % 2 == 0;
      std::uint32_t code = synchronous ? AskSync(client, kind) : AskAsync(async, answers, kind);
      // A synchronous 2 is both the server's "no results" and the client's own failed send;
      // the same question posted tells them apart.
      if (synchronous && code == boottime::kStatusNoResults) code = AskAsync(async, answers, kind);
      ++totals.asked;
      const bool answered = code == boottime::kStatusAvailable || code == boottime::kStatusNotYetKnown ||
                            code == boottime::kStatusNoResults;
      if (answered) ++totals.answered;
      else std::fprintf(stderr, "pipe_hostile: a good query (kind %d, %s) got %u\n", kind, synchronous ? "sync" : "async", code);
      if (code == boottime::kStatusNotYetKnown) ++totals.notYetKnown;
    }
    async->RemoveResponseObserver(&answers);
  }
  client->Stop();
  client->UnInit();
  module.Destroy(kObjectName, object);
  return connected;
}

}  // namespace hostile
