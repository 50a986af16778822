#pragma once

#include <cstdarg>
#include <cstdint>
#include <string>
#include <vector>

namespace Vx::Tessel::Server::Logging {

// The format and the arguments of a log line, with its narrow texts widened from UTF-8. The C
// runtime would show each byte of such a text as a character ("J\u00C3\u00BCrgen").
//
// Leaves a line as it is if its narrow texts are ASCII, if they have a precision, and without
// memory. Borrows what it is constructed from and allocates only for a text that is not ASCII.
class NarrowTexts {
 public:
  NarrowTexts(const wchar_t* format, va_list arguments) noexcept;
  NarrowTexts(const NarrowTexts&) = delete;
  NarrowTexts& operator=(const NarrowTexts&) = delete;

  const wchar_t* Format() const noexcept { return format; }

  // Valid for as long as this object.
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
