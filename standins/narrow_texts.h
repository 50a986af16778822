#pragma once

#include <cstdarg>
#include <cstdint>
#include <string>
#include <vector>

namespace Vx::Tessel::Server::Logging {

// The format and arguments of a log line, with its narrow strings widened from UTF-8. The C runtime
// would show each byte of such a string as a character ("J\u00C3\u00BCrgen").
//
// Leaves the line unchanged if its narrow strings are ASCII or their conversions have a precision,
// or if memory runs out. Borrows its arguments. Allocates only for a string that is not ASCII.
class NarrowTexts {
 public:
  NarrowTexts(const wchar_t* format, va_list arguments) noexcept;
  NarrowTexts(const NarrowTexts&) = delete;
  NarrowTexts& operator=(const NarrowTexts&) = delete;

  const wchar_t* Format() const noexcept { return format; }

  // Valid as long as this object.
  va_list Arguments() const noexcept { return arguments; }

 private:
  void Widen();

  const wchar_t* format;
  va_list arguments;
  std::wstring newFormat;
  std::vector<std::uint64_t> newArguments;
  std::vector<std::wstring> texts;
};

}  // namespace Vx::Tessel::Server::Logging
