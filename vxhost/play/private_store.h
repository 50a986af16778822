#pragma once

#include <filesystem>

namespace Vx::Hosting::Tool {

// Replaces the machine's store with one in a temporary folder, which the destructor removes.
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
