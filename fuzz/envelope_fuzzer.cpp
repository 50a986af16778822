#include <cstddef>
#include <cstdint>
#include <string_view>

#include "fuzz/fuzz_check.h"
#include "servicehost/envelope.h"

using namespace Vx::Host;

// What a client of the pipe may send, and what a false server may send back.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view message(reinterpret_cast<const char*>(data), size);
  if (const auto command = ParseCommand(message)) {
    const auto again = ParseCommand(WriteCommand(*command));
    Vx::Fuzz::Check(again && again->id == command->id && again->request == command->request,
                    "a command comes back unchanged");
    Vx::Fuzz::Check(command->request.find(L'\0') == std::wstring::npos, "the module sees it all");
  }
  if (const auto result = ParseResult(message)) {
    const auto again = ParseResult(WriteResult(*result));
    Vx::Fuzz::Check(again && again->code == result->code && again->response == result->response,
                    "a result comes back unchanged");
  }
  return 0;
}
