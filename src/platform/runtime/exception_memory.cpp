#include "platform/runtime/exception_memory.h"

#include <atomic>
#include <bit>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <exception>

#include <windows.h>

// The module's TLS directory and index, which the C runtime defines.
// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp): the runtime's names
extern "C" {
extern const IMAGE_TLS_DIRECTORY64 _tls_used;
extern ULONG _tls_index;
}
// NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)

namespace Vx::Platform {

namespace {

// The runtime's header before the thrown object: 160 bytes in GCC 12, perhaps more in a later one.
constexpr std::size_t kRecord = 256;
constexpr std::size_t kSlot = kRecord + kLargestReservedException;
constexpr std::size_t kAlignment = 16;
static_assert(kRecord % kAlignment == 0 && kSlot % kAlignment == 0);

alignas(kAlignment) std::byte reserve[kReservedExceptions * kSlot];
std::atomic<std::uint64_t> taken{0};  // one bit per slot
static_assert(kReservedExceptions == 64);

void* TakeSlot() noexcept {
  std::uint64_t seen = taken.load();
  while (~seen != 0) {
    const int slot = std::countr_one(seen);
    if (taken.compare_exchange_weak(seen, seen | (std::uint64_t{1} << slot))) {
      return reserve + static_cast<std::size_t>(slot) * kSlot;
    }
  }
  return nullptr;
}

void* Take(std::size_t size) noexcept {
  void* block = std::malloc(size);
  if (block == nullptr && size <= kSlot) block = TakeSlot();
  if (block == nullptr) std::terminate();
  return block;
}

void Free(void* block) noexcept {
  const auto offset = reinterpret_cast<std::uintptr_t>(block) -
                      reinterpret_cast<std::uintptr_t>(static_cast<void*>(reserve));
  if (offset >= sizeof reserve) {
    std::free(block);
  } else {
    taken.fetch_and(~(std::uint64_t{1} << (offset / kSlot)));
  }
}

// __cxa_eh_globals of the C++ ABI: the runtime's exception state of one thread.
struct ThreadExceptions {
  void* caught;
  unsigned int uncaught;
};

// Only the copy in each thread's TLS block is used. Twice the size, because a copy may be less
// aligned than the original. The linker sorts sections by name, and ".tls$ZZZ" comes last.
[[gnu::section(".tls$VX"), gnu::used]] std::byte original[2 * sizeof(ThreadExceptions)] = {};

// Returns the calling thread's copy of `original`, from the static TLS that Windows allocates for
// every thread, even one older than the module. The compiler itself does not use static TLS
// (https://learn.microsoft.com/cpp/parallel/thread-local-storage-tls).
ThreadExceptions* OfThisThread() noexcept {
  constexpr unsigned long kStoragesOfThread = 0x58;  // ThreadLocalStoragePointer in the x64 TEB
  const auto storages = __readgsqword(kStoragesOfThread) + _tls_index * sizeof(std::uintptr_t);
  // NOLINTBEGIN(performance-no-int-to-ptr)
  const std::uintptr_t copy = *reinterpret_cast<const std::uintptr_t*>(storages) +
                              reinterpret_cast<std::uintptr_t>(&original[0]) -
                              _tls_used.StartAddressOfRawData;
  constexpr std::uintptr_t kMask = alignof(ThreadExceptions) - 1;
  return reinterpret_cast<ThreadExceptions*>((copy + kMask) & ~kMask);
  // NOLINTEND(performance-no-int-to-ptr)
}

}  // namespace

}  // namespace Vx::Platform

// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp): names of the C++ ABI
extern "C" {

void* __cxa_allocate_exception(std::size_t size) noexcept {
  using Vx::Platform::kRecord;
  if (size > SIZE_MAX - kRecord) std::terminate();
  void* block = Vx::Platform::Take(kRecord + size);
  std::memset(block, 0, kRecord);
  return static_cast<std::byte*>(block) + kRecord;
}

void __cxa_free_exception(void* object) noexcept {
  Vx::Platform::Free(static_cast<std::byte*>(object) - Vx::Platform::kRecord);
}

// A record without an object, which refers to another exception.
void* __cxa_allocate_dependent_exception() noexcept {
  void* block = Vx::Platform::Take(Vx::Platform::kRecord);
  std::memset(block, 0, Vx::Platform::kRecord);
  return block;
}

void __cxa_free_dependent_exception(void* record) noexcept {
  Vx::Platform::Free(record);
}

void* __cxa_get_globals() noexcept {
  return Vx::Platform::OfThisThread();
}

void* __cxa_get_globals_fast() noexcept {
  return Vx::Platform::OfThisThread();
}

}  // extern "C"
// NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)
