// Compares ExecuteCommand of the real module with plain use of rapidjson that parses the same
// request, builds and writes the same response and copies it to a buffer from malloc. The module is
// loaded, not linked, so that each side can configure rapidjson in its own way.
//
// Usage: dispatch_bench [--brief] [--json FILE]
#include <cstdlib>
#include <cstring>
#include <string>

#include <rapidjson/document.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include "bench/beside.h"
#include "bench/loaded_service.h"
#include "bench/ratio_table.h"

namespace {

using namespace Vx::Bench;

using Encoding = rapidjson::UTF16<wchar_t>;
using Document = rapidjson::GenericDocument<Encoding>;
using Value = Document::ValueType;

constexpr std::uint32_t kVersion = 22;
constexpr std::uint32_t kNoSuchCommand = 99;

// Runs the same command with plain rapidjson.
void Plain(const std::wstring& request, const wchar_t* version) {
  Document document;
  if (document.Parse(request.c_str()).HasParseError()) std::abort();
  Document answer;
  answer.SetObject();
  if (version != nullptr) {
    Value result(rapidjson::kObjectType);
    result.AddMember(L"getVersion", Value(version, answer.GetAllocator()), answer.GetAllocator());
    answer.AddMember(L"result", result, answer.GetAllocator());
  }
  rapidjson::GenericStringBuffer<Encoding> buffer;
  rapidjson::Writer<rapidjson::GenericStringBuffer<Encoding>, Encoding, Encoding> writer(buffer);
  answer.Accept(writer);
  const std::size_t bytes = buffer.GetSize() + sizeof(wchar_t);
  void* copy = std::malloc(bytes);
  std::memcpy(copy, buffer.GetString(), bytes);
  Keep(copy);
  std::free(copy);
}

std::wstring Padded(std::wstring open, std::size_t length) {
  open.append(length - open.size() - 2, L'x');
  return open + L"\"}";
}

void Measure(LoadedService& service, RatioTable& table) {
  const struct {
    const char* name;
    std::wstring request;
    double goal;
    std::size_t perTurn;
  } kSizes[] = {
      {"id 22, request of 150 characters", Padded(L"{\"a\":1,\"text\":\"", 150), 0.60, 200},
      {"id 22, 2 KiB", Padded(L"{\"a\":1,\"text\":\"", 2048), 0.85, 50},
      {"id 22, 20 KiB", Padded(L"{\"a\":1,\"text\":\"", 20480), 0.85, 10},
  };
  for (const auto& size : kSizes) {
    table.Compare(
        size.name, "plain rapidjson", size.goal, size.perTurn,
        [&] { service.Run(kVersion, size.request, 0); }, [&] { Plain(size.request, VX_VERSION); });
  }
  // For an id without a handler, only parsing, dispatching and responding cost time.
  const struct {
    const char* name;
    std::wstring request;
  } kRequests[] = {
      {"parse, dispatch, answer: id 9's request, 150",
       Padded(L"{\"powerEventType\":7,\"eventAction\":1,\"x\":{\"path\":\"C:\\\\t.exe\"},\"y\":\"",
              150)},
      {"parse, dispatch, answer: id 17's request, 150", Padded(L"{\"parameter\":\"", 150)},
      {"parse, dispatch, answer: id 20's request, 2", L"{}"},
  };
  for (const auto& c : kRequests) {
    table.Compare(
        c.name, "plain rapidjson", 0.60, 200,
        [&] { service.Run(kNoSuchCommand, c.request, 0x20000001); },
        [&] { Plain(c.request, nullptr); });
  }
}

}  // namespace

int main(int argc, char** argv) {
  const std::wstring module = Beside(L"..\\bin\\OrvaneService.dll");
  return RunBenchmarks(argc, argv, [&](RatioTable& table, Effort) {
    LoadedService service(module);
    Measure(service, table);
  });
}
