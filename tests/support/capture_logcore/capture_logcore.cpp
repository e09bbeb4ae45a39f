// logcore.dll for tests: every LogWrite is formatted like the real library's and kept in
// memory, whatever the level, until a test reads or clears it.
#include <windows.h>

#include <cstdarg>
#include <cstdint>
#include <cwchar>
#include <mutex>
#include <new>
#include <string>
#include <type_traits>
#include <vector>

#include "common/unique_handle.h"
#include "lumera/logcore.h"
#include "message_format.h"
#include "support/capture_record.h"

namespace {

constexpr std::int32_t kOk = 0;
constexpr std::int32_t kInvalidData = ERROR_INVALID_DATA;
constexpr std::int32_t kNotFound = ERROR_NOT_FOUND;
constexpr std::int32_t kFailure = ERROR_GEN_FAILURE;
constexpr std::size_t kMaxMessages = 100000;

static_assert(testsupport::kCaptureTextChars == logcore::kMaxTextChars + 1);
static_assert(testsupport::kCaptureFunctionChars == logcore::kMaxFunctionChars + 1);

using Message = testsupport::LogEntry;

struct Capture {
  ky::CriticalSection lock;
  std::vector<Message> messages;
  std::int32_t outstandingInits = 0;
};

Capture* g_capture = nullptr;

Capture& State() { return *g_capture; }

// Runs fn under the capture's lock; an exception becomes a failure code.
template <class Fn>
std::int32_t Locked(Fn&& fn) noexcept {
  try {
    std::lock_guard hold(State().lock);
    return fn();
  } catch (...) {
    return kFailure;
  }
}

}  // namespace

extern "C" {

std::int32_t __cdecl LogInit() { return Locked([] { ++State().outstandingInits; return kOk; }); }
std::int32_t __cdecl LogDeinit() { return Locked([] { --State().outstandingInits; return kOk; }); }

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
    if (State().messages.size() < kMaxMessages) State().messages.push_back(std::move(message));
    return kOk;
  });
}

// The logging adapter resolves the settings functions too but never calls them; a capture
// keeps everything, so it has none.

std::int32_t __cdecl CaptureCount() { return Locked([] { return static_cast<std::int32_t>(State().messages.size()); }); }

std::int32_t __cdecl CaptureGet(std::int32_t index, testsupport::CaptureRecord* out) {
  if (out == nullptr) return kInvalidData;
  return Locked([index, out] {
    if (index < 0 || static_cast<std::size_t>(index) >= State().messages.size()) return kNotFound;
    const Message& message = State().messages[static_cast<std::size_t>(index)];
    out->threadId = message.threadId;
    out->depthChange = message.depthChange;
    out->level = message.level;
    out->moduleBase = message.moduleBase;
    logcore::CopyBounded(out->function, testsupport::kCaptureFunctionChars, message.function.c_str());
    logcore::CopyBounded(out->text, testsupport::kCaptureTextChars, message.text.c_str());
    return kOk;
  });
}

std::int32_t __cdecl CaptureClear() { return Locked([] { State().messages.clear(); return kOk; }); }
std::int32_t __cdecl CaptureOutstandingInits() { return Locked([] { return State().outstandingInits; }); }

}  // extern "C"

static_assert(std::is_same_v<decltype(&LogWrite), LogWriteFn>);
static_assert(std::is_same_v<decltype(&CaptureGet), CaptureGetFn>);

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
