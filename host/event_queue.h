// The host's event queue: serial executions, each a worker thread that runs its posted
// work items one at a time in posting order.
#pragma once

#include <windows.h>

#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "lumera/ky_base.h"

namespace host {

class SerialExecution final : public ISerialExecution {
 public:
  SerialExecution();
  ~SerialExecution();  // drops items not yet started and joins the worker
  SerialExecution(const SerialExecution&) = delete;
  SerialExecution& operator=(const SerialExecution&) = delete;

  std::uint32_t Post(const wchar_t* name, EqWorkItem* item) override;

 private:
  void Run();

  std::mutex lock_;
  std::condition_variable wake_;
  std::deque<EqWorkItem*> items_;
  bool stopping_ = false;
  std::thread worker_;
};

class EventQueue final : public IEventQueue {
 public:
  ~EventQueue();
  std::uint32_t createSerialExecution(ISerialExecution** out) override;
  std::uint32_t destroySerialExecution(ISerialExecution* execution) override;

 private:
  std::mutex lock_;
  std::vector<std::unique_ptr<SerialExecution>> executions_;
};

}  // namespace host
