#pragma once

#include <filesystem>

namespace Vx::Hosting::Tool {

// A folder that replaces the machine's for one run's stored values. Removed at the end.
class PrivateStore {
 public:
  PrivateStore();
  PrivateStore(const PrivateStore&) = delete;
  PrivateStore& operator=(const PrivateStore&) = delete;
  ~PrivateStore();

 private:
  std::filesystem::path folder;
};

}  // namespace Vx::Hosting::Tool
