// logcore.dll for tests: every LogWrite is formatted like the real library's and kept in
// memory, whatever the level, until a test reads or clears it.
#include <windows.h>

#include <cstdarg>
#include <cstdint>
#include <mutex>
#include <new>
#include <string>
#include <type_traits>
#include <vector>

#include "common/critical_section.h"
#include "lumera/logcore.h"
#include "message_format.h"
#include "support/captured_log.h"

namespace {

constexpr std::int32_t kOk = 0;
constexpr std::int32_t kInvalidData = ERROR_INVALID_DATA;
constexpr std::int32_t kFailure = ERROR_GEN_FAILURE;
constexpr std::size_t kMaxMessages = 100000;

using Message = testsupport::LogEntry;

struct Capture {
  ky::CriticalSection lock;
  std::vector<Message> messages;
  std::int32_t outstandingInits = 0;
};

Capture* g_capture = nullptr;

// Runs fn under the capture's lock; an exception becomes a failure code.
template <class Fn>
std::int32_t Locked(Fn&& fn) noexcept {
  try {
    std::lock_guard hold(g_capture->lock);
    return fn();
  } catch (...) {
    return kFailure;
  }
}

}  // namespace

extern "C" {

std::int32_t __cdecl LogInit() { return Locked([] { ++g_capture->outstandingInits; return kOk; }); }
std::int32_t __cdecl LogDeinit() { return Locked([] { --g_capture->outstandingInits; return kOk; }); }

std::int32_t __cdecl LogWrite(std::uint16_t depthChange, const std::uint32_t* level, const void* moduleBase,
                              const wchar_t* function, const wchar_t* format, ...) {
  if (level == nullptr || format == nullptr) return kInvalidData;
  wchar_t text[logcore::kMaxTextChars + 1];
  va_list args;
  va_start(args, format);
  const std::size_t length = logcore::FormatText(text, logcore::kMaxTextChars + 1, format, args);
  va_end(args);
  wchar_t name[logcore::kMaxFunctionChars + 1];
  const std::size_t nameLength = logcore::CopyBounded(name, logcore::kMaxFunctionChars + 1, function);
  return Locked([&] {
    Message message{::GetCurrentThreadId(), depthChange, *level, moduleBase, std::wstring(name, nameLength),
                    std::wstring(text, length)};
    if (g_capture->messages.size() < kMaxMessages) g_capture->messages.push_back(std::move(message));
    return kOk;
  });
}

// The logging adapter resolves the settings functions too but never calls them; a capture
// keeps everything, so it has none.

const std::vector<Message>* __cdecl CaptureMessages() { return &g_capture->messages; }
void __cdecl CaptureLock() { g_capture->lock.lock(); }
void __cdecl CaptureUnlock() { g_capture->lock.unlock(); }
std::int32_t __cdecl CaptureClear() { return Locked([] { g_capture->messages.clear(); return kOk; }); }
std::int32_t __cdecl CaptureOutstandingInits() { return Locked([] { return g_capture->outstandingInits; }); }

}  // extern "C"

static_assert(std::is_same_v<decltype(&LogWrite), LogWriteFn>);
static_assert(std::is_same_v<decltype(&CaptureMessages), CaptureMessagesFn>);

// The captured messages are made and destroyed with the library: a function-local static would
// only be destroyed at process exit, leaking a thread-local slot per load.
BOOL WINAPI DllMain(HINSTANCE, DWORD reason, LPVOID reserved) {
  if (reason == DLL_PROCESS_ATTACH) {
    g_capture = new (std::nothrow) Capture();
    return g_capture != nullptr ? TRUE : FALSE;
  }
  if (reason == DLL_PROCESS_DETACH && reserved == nullptr) {
    delete g_capture;
    g_capture = nullptr;
  }
  return TRUE;
}
