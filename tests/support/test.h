#pragma once

// Includes for nearly every test: GoogleTest and its matchers by their unqualified names, the
// standard library, and the helpers in this folder that need no library of their own.
#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <iterator>
#include <limits>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <random>
#include <set>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace Vx {

using namespace std::chrono_literals;
using namespace testing;

}  // namespace Vx

namespace Vx::Tests {

inline std::wstring Repeated(std::wstring_view part, std::size_t count) {
  std::wstring text;
  text.reserve(part.size() * count);
  for (; count > 0; --count) text += part;
  return text;
}

}  // namespace Vx::Tests

#ifdef _WIN32
#include <windows.h>

#include "platform/machine.h"
#include "platform/unique_handle.h"
#include "support/import_override.h"
#include "support/log_capture.h"
#include "support/probe.h"
#include "support/process_gauges.h"
#include "support/temp_folder.h"
#include "support/threads.h"
#endif
