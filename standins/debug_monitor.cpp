#include "standins/debug_monitor.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <memory>
#include <string_view>

#include <windows.h>

#include <sddl.h>

#include "platform/clock.h"
#include "platform/machine.h"
#include "platform/unique_handle.h"

namespace Vx::Tessel::Server::Logging {

namespace {

using Platform::UniqueHandle;

// The protocol's names. The monitor creates the events and the buffer, the first writer the mutex.
constexpr wchar_t kMutex[] = L"DBWinMutex";
constexpr wchar_t kBuffer[] = L"DBWIN_BUFFER";
constexpr wchar_t kBufferReady[] = L"DBWIN_BUFFER_READY";
constexpr wchar_t kDataReady[] = L"DBWIN_DATA_READY";

constexpr DWORD kMutexAccess = SYNCHRONIZE | MUTEX_MODIFY_STATE;

// Gives the system and administrators full access to the mutex and lets every process use it
// (kMutexAccess and READ_CONTROL), as if OutputDebugString had created it.
constexpr wchar_t kMutexSecurity[] = L"D:(A;;0x1F0001;;;SY)(A;;0x1F0001;;;BA)(A;;0x120001;;;WD)";

// The buffer's content. Longer strings are sent in pieces.
struct Packet {
  DWORD processId;
  char text[4092];
};
static_assert(sizeof(Packet) == 4096);

// A character takes at most four bytes in a code page, and the terminator takes one.
constexpr std::size_t kPiece = (sizeof(Packet::text) - 1) / 4;

constexpr std::uint64_t kPatience = 100;      // milliseconds
constexpr std::uint64_t kAnswerHolds = 1000;  // milliseconds
constexpr std::uint64_t kLeftAlone = 60'000;  // milliseconds

// Whether a monitor was found, and until when that is valid. Without this cache, every log line
// would make a system call, which takes several times as long as a command that logs nothing.
std::atomic<bool> monitorFound{false};
std::atomic<std::uint64_t> foundUntil{0};

// After a reader did not keep up, none is tried before this time.
std::atomic<std::uint64_t> leftAloneUntil{0};

// Admits one writer of this module at a time, so that the time limit covers only the reader.
SRWLOCK writers = SRWLOCK_INIT;

class WritersLock {
 public:
  WritersLock() noexcept { AcquireSRWLockExclusive(&writers); }
  WritersLock(const WritersLock&) = delete;
  WritersLock& operator=(const WritersLock&) = delete;
  ~WritersLock() { ReleaseSRWLockExclusive(&writers); }
};

// The monitor is real, even under a simulated machine.
Platform::Clock& RealClock() {
  return *Platform::WindowsMachine().clock;
}

bool IsLeftAlone(std::uint64_t now) noexcept {
  return now < leftAloneUntil.load(std::memory_order_relaxed);
}

UniqueHandle OpenWritersMutex() {
  UniqueHandle mutex(OpenMutexW(kMutexAccess, FALSE, kMutex));
  if (mutex != nullptr || GetLastError() != ERROR_FILE_NOT_FOUND) return mutex;
  PSECURITY_DESCRIPTOR raw = nullptr;
  if (ConvertStringSecurityDescriptorToSecurityDescriptorW(kMutexSecurity, SDDL_REVISION_1, &raw,
                                                           nullptr) == FALSE) {
    return nullptr;
  }
  const Platform::UniqueLocalMemory<void> descriptor(raw);
  SECURITY_ATTRIBUTES attributes{sizeof attributes, raw, FALSE};
  return UniqueHandle(CreateMutexExW(&attributes, kMutex, 0, kMutexAccess));
}

bool WaitUntil(const UniqueHandle& handle, std::uint64_t end) {
  const std::uint64_t now = RealClock().TickCount();
  const std::chrono::milliseconds left(now < end ? end - now : 0);
  return RealClock().Wait(handle.get(), left).outcome == Platform::WaitOutcome::Signalled;
}

// Holds the mutex for a scope.
class WritersTurn {
 public:
  explicit WritersTurn(std::uint64_t end)
      : mutex(OpenWritersMutex()), owned(mutex != nullptr && WaitUntil(mutex, end)) {}
  WritersTurn(const WritersTurn&) = delete;
  WritersTurn& operator=(const WritersTurn&) = delete;
  ~WritersTurn() {
    if (owned) ReleaseMutex(mutex.get());
  }

  explicit operator bool() const noexcept { return owned; }

 private:
  UniqueHandle mutex;
  bool owned;
};

struct ViewCloser {
  void operator()(void* view) const noexcept { UnmapViewOfFile(view); }
};

// Raises the exception with which OutputDebugString offers a string to its own process, for
// handlers such as the development host's. A vectored handler that runs last handles the
// exception, because a frame-based one needs a compiler with structured exception handling.
class Offer {
 public:
  explicit Offer(std::wstring_view text) noexcept : handler(AddVectoredExceptionHandler(0, &End)) {
    if (handler == nullptr) return;
    const ULONG_PTR arguments[] = {text.size() + 1, reinterpret_cast<ULONG_PTR>(text.data()),
                                   reinterpret_cast<ULONG_PTR>(&mark)};
    RaiseException(kWideDebugOutput, 0, static_cast<DWORD>(std::size(arguments)), arguments);
  }
  Offer(const Offer&) = delete;
  Offer& operator=(const Offer&) = delete;
  ~Offer() {
    if (handler != nullptr) RemoveVectoredExceptionHandler(handler);
  }

 private:
  static LONG CALLBACK End(EXCEPTION_POINTERS* exception) {
    const EXCEPTION_RECORD& record = *exception->ExceptionRecord;
    const bool ours = record.ExceptionCode == kWideDebugOutput && record.NumberParameters == 3 &&
                      record.ExceptionInformation[2] == reinterpret_cast<ULONG_PTR>(&mark);
    return ours ? EXCEPTION_CONTINUE_EXECUTION : EXCEPTION_CONTINUE_SEARCH;
  }

  static constexpr DWORD kWideDebugOutput = 0x4001000A;  // DBG_PRINTEXCEPTION_WIDE_C
  static constexpr char mark = 0;  // its address marks this module's exceptions

  void* handler;
};

// Moves the beginning of `text` into the packet.
void TakePiece(std::wstring_view& text, Packet& packet) {
  std::size_t length = std::min(text.size(), kPiece);
  if (length < text.size() && IS_HIGH_SURROGATE(text[length - 1])) --length;
  const int bytes =
      WideCharToMultiByte(CP_ACP, 0, text.data(), static_cast<int>(length), packet.text,
                          static_cast<int>(sizeof packet.text - 1), nullptr, nullptr);
  packet.text[std::max(bytes, 0)] = '\0';
  text.remove_prefix(length);
}

// Returns false if there is a monitor that did not take the whole text by `end`.
bool SendToMonitor(std::wstring_view text, std::uint64_t end) {
  const UniqueHandle buffer(OpenFileMappingW(FILE_MAP_WRITE, FALSE, kBuffer));
  if (buffer == nullptr) return GetLastError() == ERROR_FILE_NOT_FOUND;
  const WritersTurn turn(end);
  if (!turn) return false;
  const UniqueHandle bufferReady(OpenEventW(SYNCHRONIZE, FALSE, kBufferReady));
  const UniqueHandle dataReady(OpenEventW(EVENT_MODIFY_STATE, FALSE, kDataReady));
  if (bufferReady == nullptr || dataReady == nullptr) return false;
  const std::unique_ptr<void, ViewCloser> view(
      MapViewOfFile(buffer.get(), FILE_MAP_WRITE, 0, 0, sizeof(Packet)));
  if (view == nullptr) return false;
  while (!text.empty()) {
    if (!WaitUntil(bufferReady, end)) return false;
    Packet packet{};  // zeroed, so that no stack content leaves the process
    packet.processId = GetCurrentProcessId();
    TakePiece(text, packet);
    // Fails where a plain copy would crash: the monitor may have reserved the memory without
    // committing it, or backed it by a file that is gone.
    if (WriteProcessMemory(GetCurrentProcess(), view.get(), &packet, sizeof packet, nullptr) ==
        FALSE) {
      return false;
    }
    SetEvent(dataReady.get());
  }
  return true;
}

}  // namespace

bool DebugOutputIsShown() noexcept {
  if (IsDebuggerPresent() != FALSE) return true;
  const std::uint64_t now = RealClock().TickCount();
  if (IsLeftAlone(now)) return false;
  if (now < foundUntil.load(std::memory_order_relaxed)) {
    return monitorFound.load(std::memory_order_relaxed);
  }
  const UniqueHandle event(OpenEventW(SYNCHRONIZE, FALSE, kDataReady));
  monitorFound.store(event != nullptr, std::memory_order_relaxed);
  foundUntil.store(now + kAnswerHolds, std::memory_order_relaxed);
  return event != nullptr;
}

void SendDebugOutput(const wchar_t* text) noexcept {
  if (IsDebuggerPresent() != FALSE) {
    OutputDebugStringW(text);
    return;
  }
  const Offer offer(text);
  const WritersLock lock;
  const std::uint64_t now = RealClock().TickCount();
  if (IsLeftAlone(now) || SendToMonitor(text, now + kPatience)) return;
  leftAloneUntil.store(RealClock().TickCount() + kLeftAlone, std::memory_order_relaxed);
}

}  // namespace Vx::Tessel::Server::Logging
