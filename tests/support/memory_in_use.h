#pragma once

#include <cstddef>

namespace Vx::Tests {

// Memory of this process: what it alone has committed, and the heap blocks in use, in bytes.
struct MemoryInUse {
  std::size_t committed = 0;
  std::size_t heap = 0;
};
MemoryInUse MeasureMemory();

}  // namespace Vx::Tests
