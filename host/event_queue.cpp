#include "event_queue.h"

#include <algorithm>

#include "common/com_ptr.h"
#include "common/guard.h"
#include "common/log.h"
#include "thread_name.h"

namespace host {

SerialExecution::SerialExecution() : worker_([this] {
  NameThisThread(L"lumera-events");
  Run();
}) {}

SerialExecution::~SerialExecution() {
  std::deque<EqWorkItem*> dropped;
  {
    std::lock_guard hold(lock_);
    stopping_ = true;
    dropped.swap(items_);
  }
  wake_.notify_all();
  worker_.join();
  for (EqWorkItem* item : dropped) item->Release();
}

std::uint32_t SerialExecution::Post(const wchar_t* name, EqWorkItem* item) {
  KY_TRACE(L"host::SerialExecution::Post");
  if (item == nullptr) return ERROR_INVALID_DATA;
  ky::com_ptr<EqWorkItem> owned(item);  // released here unless queued, whatever happens
  return ky::Guarded(L"host::SerialExecution::Post", ky::kGeneralFailure, [&]() -> std::uint32_t {
    {
      std::lock_guard hold(lock_);
      if (!stopping_) {
        items_.push_back(owned.get());
        (void)owned.release();
      }
    }
    if (owned) {
      KY_LOG(logging::kLevelWarning, L"%s posted while stopping", name ? name : L"");
      return ERROR_SHUTDOWN_IN_PROGRESS;
    }
    wake_.notify_one();
    return 0;
  });
}

void SerialExecution::Run() {
  for (;;) {
    EqWorkItem* item = nullptr;
    {
      std::unique_lock hold(lock_);
      wake_.wait(hold, [this] { return stopping_ || !items_.empty(); });
      if (stopping_) return;
      item = items_.front();
      items_.pop_front();
    }
    ky::GuardedVoid(L"host::SerialExecution::Run", [item] { item->Execute(); });
    item->Release();
  }
}

EventQueue::~EventQueue() {
  std::lock_guard hold(lock_);
  executions_.clear();
}

std::uint32_t EventQueue::createSerialExecution(ISerialExecution** out) {
  if (out == nullptr) return ERROR_INVALID_DATA;
  *out = nullptr;
  // A thread that cannot be started is reported as the lack of memory it nearly always is.
  return ky::Guarded(L"host::EventQueue::createSerialExecution", ky::kOutOfMemory, [&]() -> std::uint32_t {
    auto execution = std::make_unique<SerialExecution>();
    ISerialExecution* made = execution.get();
    std::lock_guard hold(lock_);
    executions_.push_back(std::move(execution));
    *out = made;
    return 0;
  });
}

std::uint32_t EventQueue::destroySerialExecution(ISerialExecution* execution) {
  std::unique_ptr<SerialExecution> owned;
  {
    std::lock_guard hold(lock_);
    auto it = std::find_if(executions_.begin(), executions_.end(),
                           [execution](const auto& e) { return e.get() == execution; });
    if (it == executions_.end()) return ERROR_NOT_FOUND;
    owned = std::move(*it);
    executions_.erase(it);
  }
  owned.reset();
  return 0;
}

}  // namespace host
