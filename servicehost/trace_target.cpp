#include "servicehost/trace_target.h"

#include <cstring>
#include <string_view>

#include <windows.h>

#include <evntprov.h>

namespace Vx::Hosting::ServiceHost {

namespace {

using Bytes = std::vector<std::byte>;

// Derived from the provider's name as tools do it, so that they also accept "*Vx-Host-Service".
constexpr GUID kProvider = {
    0x1f3716e0, 0xc3cb, 0x5355, {0x7c, 0xd0, 0xdc, 0x57, 0x8e, 0xba, 0x4f, 0xdc}};
constexpr std::string_view kProviderName = "Vx-Host-Service";
constexpr std::string_view kEventName = "Log";

// Field types of self-describing events.
constexpr std::uint8_t kText = 1;    // null-terminated UTF-16
constexpr std::uint8_t kNumber = 8;  // unsigned 32-bit integer

struct Field {
  std::string_view name;
  std::uint8_t type;
};
constexpr Field kFields[] = {{"level", kText},
                             {"provider", kText},
                             {"caller", kText},
                             {"thread", kNumber},
                             {"message", kText}};

constexpr std::uint8_t kSelfDescribing = 11;  // marks self-describing events for tools
constexpr std::uint8_t kDescription = 1;      // the types of an event's first two parts
constexpr std::uint8_t kTraits = 2;
constexpr int kProviderTraits = 2;  // the EventSetInformation class for traits

void AppendByte(Bytes& bytes, std::uint8_t value) {
  bytes.push_back(std::byte{value});
}

void AppendName(Bytes& bytes, std::string_view name) {
  for (const char c : name) AppendByte(bytes, static_cast<std::uint8_t>(c));
  AppendByte(bytes, 0);
}

// Both blocks begin with their size as a 16-bit little-endian integer.
Bytes Sized(Bytes bytes) {
  bytes[0] = std::byte{static_cast<std::uint8_t>(bytes.size() & 0xFF)};
  bytes[1] = std::byte{static_cast<std::uint8_t>(bytes.size() >> 8)};
  return bytes;
}

Bytes Traits() {
  Bytes bytes(2);
  AppendName(bytes, kProviderName);
  return Sized(std::move(bytes));
}

Bytes Description() {
  Bytes bytes(2);
  AppendByte(bytes, 0);  // no tags
  AppendName(bytes, kEventName);
  for (const Field& field : kFields) {
    AppendName(bytes, field.name);
    AppendByte(bytes, field.type);
  }
  return Sized(std::move(bytes));
}

Bytes ValueOf(const std::wstring& text) {
  Bytes bytes((text.size() + 1) * sizeof(wchar_t));
  std::memcpy(bytes.data(), text.c_str(), bytes.size());
  return bytes;
}

Bytes ValueOf(std::uint32_t number) {
  Bytes bytes(sizeof number);
  std::memcpy(bytes.data(), &number, sizeof number);
  return bytes;
}

class WindowsTrace final : public TraceWriter {
 public:
  WindowsTrace() {
    if (EventRegister(&kProvider, nullptr, nullptr, &handle) != ERROR_SUCCESS) handle = 0;
    // Not in every Windows version, and needed only by tools that list providers.
    using SetInformation = ULONG(WINAPI*)(REGHANDLE, int, void*, ULONG);
    const auto set = reinterpret_cast<SetInformation>(reinterpret_cast<void*>(
        GetProcAddress(GetModuleHandleW(L"advapi32.dll"), "EventSetInformation")));
    Bytes traits = Traits();
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

  void Write(std::uint8_t level, std::span<const std::byte> traits,
             std::span<const std::byte> description,
             std::span<const Bytes> values) noexcept override {
    EVENT_DESCRIPTOR event{};
    event.Channel = kSelfDescribing;
    event.Level = level;
    EVENT_DATA_DESCRIPTOR parts[2 + std::size(kFields)];
    ULONG count = 0;
    // A part's type is in the low byte of its reserved word.
    const auto add = [&](std::span<const std::byte> bytes, std::uint8_t kind) {
      EventDataDescCreate(&parts[count], bytes.data(), static_cast<ULONG>(bytes.size()));
      parts[count++].Reserved = kind;
    };
    add(traits, kTraits);
    add(description, kDescription);
    for (const Bytes& value : values) {
      if (count < std::size(parts)) add(value, 0);
    }
    EventWrite(handle, &event, count, parts);
  }

 private:
  REGHANDLE handle = 0;
};

}  // namespace

std::unique_ptr<TraceWriter> OpenTraceWriter() {
  return std::make_unique<WindowsTrace>();
}

void TraceTarget::Write(const LogEntry& entry) {
  const LogLine& line = entry.line;
  const std::uint8_t level = line.level == L"ERROR" ? 2 : line.level == L"WARNING" ? 3 : 4;
  if (!writer->Listens(level)) return;
  const Bytes values[] = {ValueOf(line.level), ValueOf(line.provider), ValueOf(line.caller),
                          ValueOf(entry.thread), ValueOf(line.message)};
  writer->Write(level, Traits(), Description(), values);
}

}  // namespace Vx::Hosting::ServiceHost
