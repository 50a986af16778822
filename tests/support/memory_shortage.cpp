#include "support/memory_shortage.h"

#include <atomic>

#include <windows.h>

namespace Vx::Tests {
namespace {

std::atomic<DWORD> starving{0};  // the thread whose allocations are counted, 0 for none
std::size_t succeeding = 0;      // how many more of its allocations succeed
Shortage kind = Shortage::Once;
bool failed = false;

bool Fails() noexcept {
  if (starving.load() != GetCurrentThreadId()) return false;
  if (failed) return kind == Shortage::Lasting;
  if (succeeding-- != 0) return false;
  failed = true;
  return true;
}

}  // namespace

MemoryShortage::MemoryShortage(Shortage wanted, std::size_t allocations) {
  kind = wanted;
  succeeding = allocations;
  failed = false;
  starving = GetCurrentThreadId();
}

MemoryShortage::~MemoryShortage() {
  End();
}

bool MemoryShortage::End() {
  starving = 0;
  return failed;
}

}  // namespace Vx::Tests

// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp): the linker's names
extern "C" {
void* __real_malloc(std::size_t size);
void* __real_calloc(std::size_t count, std::size_t size);
void* __real_realloc(void* block, std::size_t size);
void* __wrap_malloc(std::size_t size) {
  return Vx::Tests::Fails() ? nullptr : __real_malloc(size);
}
void* __wrap_calloc(std::size_t count, std::size_t size) {
  return Vx::Tests::Fails() ? nullptr : __real_calloc(count, size);
}
void* __wrap_realloc(void* block, std::size_t size) {
  return Vx::Tests::Fails() ? nullptr : __real_realloc(block, size);
}
}
// NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)
