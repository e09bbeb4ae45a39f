#include "message_format.h"

#include <cstdio>
#include <cwchar>

namespace logcore {
namespace {

// Wide enough for the date, time, thread id and level in front of every line.
constexpr std::size_t kHeaderChars = 64;

std::size_t FormatInto(wchar_t* out, std::size_t capacity, const wchar_t* format, ...) noexcept {
  va_list args;
  va_start(args, format);
  const std::size_t n = FormatText(out, capacity, format, args);
  va_end(args);
  return n;
}

}  // namespace

std::size_t FormatText(wchar_t* out, std::size_t capacity, const wchar_t* format, va_list args) noexcept {
  if (out == nullptr || capacity == 0) return 0;
  out[0] = L'\0';
  if (format == nullptr) return 0;
  // The CRT's function, not mingw's C99 printf: libstdc++ forces __USE_MINGW_ANSI_STDIO on,
  // which swaps vsnwprintf/swprintf but leaves _vsnwprintf bound to the runtime DLL.
  const int n = ::_vsnwprintf(out, capacity - 1, format, args);
  // On overflow it returns -1 and leaves the buffer unterminated.
  out[capacity - 1] = L'\0';
  if (n < 0) return std::wcslen(out);
  return static_cast<std::size_t>(n) < capacity ? static_cast<std::size_t>(n) : capacity - 1;
}

std::size_t CopyBounded(wchar_t* out, std::size_t capacity, const wchar_t* text) noexcept {
  if (out == nullptr || capacity == 0) return 0;
  const std::size_t n = text == nullptr ? 0 : ::wcsnlen(text, capacity - 1);
  if (n > 0) std::wmemcpy(out, text, n);
  out[n] = L'\0';
  return n;
}

std::wstring ComposeLine(const SYSTEMTIME& time, DWORD threadId, std::uint32_t level, std::uint32_t indent,
                         const wchar_t* function, const wchar_t* text) {
  wchar_t header[kHeaderChars];
  const std::size_t headerChars =
      FormatInto(header, kHeaderChars, L"%04u-%02u-%02u %02u:%02u:%02u.%03u %6lu %2u ", time.wYear, time.wMonth,
                 time.wDay, time.wHour, time.wMinute, time.wSecond, time.wMilliseconds,
                 static_cast<unsigned long>(threadId), level);
  wchar_t name[kMaxFunctionChars + 1];
  const std::size_t nameChars = CopyBounded(name, kMaxFunctionChars + 1, function);
  const std::size_t textChars = text == nullptr ? 0 : ::wcsnlen(text, kMaxTextChars);

  std::wstring line;
  line.reserve(headerChars + indent * kIndentWidth + nameChars + 2 + textChars);
  line.append(header, headerChars);
  line.append(indent * kIndentWidth, L' ');
  line.append(name, nameChars);
  line.append(L": ");
  if (textChars > 0) line.append(text, textChars);
  return line;
}

}  // namespace logcore
