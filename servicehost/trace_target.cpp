#include "servicehost/trace_target.h"

#include <string>

#include <windows.h>

#include <evntprov.h>

namespace Vx::Hosting::ServiceHost {

namespace {

using namespace std::string_view_literals;

// Derived from the provider's name in the standard way, so tools also accept "*Vx-Host-Service".
constexpr GUID kProvider = {
    0x1f3716e0, 0xc3cb, 0x5355, {0x7c, 0xd0, 0xdc, 0x57, 0x8e, 0xba, 0x4f, 0xdc}};

// The traits and the description each begin with their size as a 16-bit little-endian integer.
constexpr std::string_view kTraits = "\x12\0Vx-Host-Service\0"sv;
// No tags, the event's name, and each field's name with its type: 1 for a null-terminated UTF-16
// string and 8 for an unsigned 32-bit integer.
constexpr std::string_view kDescription =
    "\x31\0"
    "\0"
    "Log\0"
    "level\0\x01"
    "provider\0\x01"
    "caller\0\x01"
    "thread\0\x08"
    "message\0\x01"sv;
static_assert(kTraits.size() == 0x12 && kDescription.size() == 0x31);

constexpr std::uint8_t kSelfDescribing = 11;  // marks self-describing events for tools
constexpr int kProviderTraits = 2;            // the EventSetInformation class for traits

std::string_view BytesOf(const std::wstring& text) {
  return {reinterpret_cast<const char*>(text.c_str()), (text.size() + 1) * sizeof(wchar_t)};
}

class WindowsTrace final : public TraceWriter {
 public:
  WindowsTrace() {
    if (EventRegister(&kProvider, nullptr, nullptr, &handle) != ERROR_SUCCESS) handle = 0;
    // Not available in every Windows version. Only tools that list providers need the traits.
    using SetInformation = ULONG(WINAPI*)(REGHANDLE, int, void*, ULONG);
    const auto set = reinterpret_cast<SetInformation>(reinterpret_cast<void*>(
        GetProcAddress(GetModuleHandleW(L"advapi32.dll"), "EventSetInformation")));
    std::string traits(kTraits);
    if (handle != 0 && set != nullptr) {
      set(handle, kProviderTraits, traits.data(), static_cast<ULONG>(traits.size()));
    }
  }
  WindowsTrace(const WindowsTrace&) = delete;
  WindowsTrace& operator=(const WindowsTrace&) = delete;
  ~WindowsTrace() override {
    if (handle != 0) EventUnregister(handle);
  }

  bool Listens(std::uint8_t level) const noexcept override {
    return handle != 0 && EventProviderEnabled(handle, level, 0) != FALSE;
  }

  void Write(std::uint8_t level, const Parts& parts) noexcept override {
    EVENT_DESCRIPTOR event{};
    event.Channel = kSelfDescribing;
    event.Level = level;
    EVENT_DATA_DESCRIPTOR data[std::tuple_size_v<Parts>];
    for (std::size_t i = 0; i < parts.size(); ++i) {
      EventDataDescCreate(&data[i], parts[i].data(), static_cast<ULONG>(parts[i].size()));
    }
    // A part's type is in the low byte of its reserved word: 2 for traits, 1 for a description.
    data[0].Reserved = 2;
    data[1].Reserved = 1;
    EventWrite(handle, &event, static_cast<ULONG>(parts.size()), data);
  }

 private:
  REGHANDLE handle = 0;
};

}  // namespace

std::shared_ptr<TraceWriter> OpenTraceWriter() {
  return std::make_shared<WindowsTrace>();
}

LogTarget TraceTarget(std::shared_ptr<TraceWriter> writer) {
  return [writer = std::move(writer)](const LogEntry& entry) {
    const LogLine& line = entry.line;
    const std::uint8_t level = line.level == L"ERROR" ? 2 : line.level == L"WARNING" ? 3 : 4;
    if (!writer->Listens(level)) return;
    const std::string_view thread(reinterpret_cast<const char*>(&entry.thread),
                                  sizeof entry.thread);
    writer->Write(level, {kTraits, kDescription, BytesOf(line.level), BytesOf(line.provider),
                          BytesOf(line.caller), thread, BytesOf(line.message)});
  };
}

}  // namespace Vx::Hosting::ServiceHost
