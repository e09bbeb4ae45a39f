// How a logged message becomes text. Shared by logcore.dll and the capturing test double
// so that both render a format exactly the same way.
#pragma once

#include <windows.h>

#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <string>

namespace logcore {

// Formatted message text is cut at this many characters.
inline constexpr std::size_t kMaxTextChars = 4095;
// A caller's function name is cut at this many characters.
inline constexpr std::size_t kMaxFunctionChars = 260;
// Indentation per level of trace depth.
inline constexpr std::size_t kIndentWidth = 2;

// Formats with the C runtime's _vsnwprintf, so Microsoft semantics apply (in a wide format
// %s is a wide string, %S a narrow one). Writes at most capacity - 1 characters and always
// terminates the text; longer text is cut. A null format or zero capacity gives no text.
// Returns the number of characters written.
std::size_t FormatText(wchar_t* out, std::size_t capacity, const wchar_t* format, va_list args) noexcept;

// Copies at most capacity - 1 characters of text and terminates; null gives "".
std::size_t CopyBounded(wchar_t* out, std::size_t capacity, const wchar_t* text) noexcept;

// One log line without its line break:
// "YYYY-MM-DD hh:mm:ss.mmm <thread> <level> <indent><function>: <text>".
std::wstring ComposeLine(const SYSTEMTIME& time, DWORD threadId, std::uint32_t level, std::uint32_t indent,
                         const wchar_t* function, const wchar_t* text);

}  // namespace logcore
