#include "event_queue.h"

#include <algorithm>

#include "common/log.h"

namespace host {

SerialExecution::SerialExecution() : worker_([this] { Run(); }) {}

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
  {
    std::lock_guard hold(lock_);
    if (!stopping_) {
      items_.push_back(item);
      item = nullptr;
    }
  }
  if (item != nullptr) {
    KY_LOG(logging::kLevelWarning, L"%s posted while stopping", name ? name : L"");
    item->Release();
    return ERROR_SHUTDOWN_IN_PROGRESS;
  }
  wake_.notify_one();
  return 0;
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
    try {
      item->Execute();
    } catch (...) {
      logging::Write(logging::kLevelError, L"host::SerialExecution::Run", L"work item threw");
    }
    item->Release();
  }
}

EventQueue::~EventQueue() {
  std::lock_guard hold(lock_);
  executions_.clear();
}

std::uint32_t EventQueue::createSerialExecution(ISerialExecution** out) {
  if (out == nullptr) return ERROR_INVALID_DATA;
  try {
    auto execution = std::make_unique<SerialExecution>();
    *out = execution.get();
    std::lock_guard hold(lock_);
    executions_.push_back(std::move(execution));
    return 0;
  } catch (...) {
    *out = nullptr;
    return ERROR_OUTOFMEMORY;
  }
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
