#pragma once

#include <cstddef>

namespace Vx::Tests {

// Memory of this process in bytes: all addresses that are not free, what it alone has committed,
// and the heap blocks in use.
struct MemoryInUse {
  std::size_t addresses = 0;
  std::size_t committed = 0;
  std::size_t heap = 0;
};
MemoryInUse MeasureMemory();

}  // namespace Vx::Tests
