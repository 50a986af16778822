#pragma once

#include <cstdint>
#include <exception>
#include <string>
#include <utility>

#include "platform/unique_handle.h"

namespace Vx::Tessel::Server::Storage {

// A failed operation on the store's mutex. The code is 0 for create, 2 for lock and 3 for unlock.
class system_mutex_exception : public std::exception {
 public:
  system_mutex_exception(std::string message, std::uint32_t code)
      : text(std::move(message)), number(code) {}

  const char* what() const noexcept override { return text.c_str(); }
  std::uint32_t code() const noexcept { return number; }

 private:
  std::string text;
  std::uint32_t number;
};

// A mutex shared by every process that opens its name. The thread that locks it must unlock it.
// Recursive, like a Windows mutex. Satisfies BasicLockable.
class SystemMutex {
 public:
  // Throws system_mutex_exception with code 0.
  explicit SystemMutex(std::wstring mutexName);
  SystemMutex(const SystemMutex&) = delete;
  SystemMutex& operator=(const SystemMutex&) = delete;

  // Unlocks the mutex if this object still holds it.
  ~SystemMutex();

  // Blocks indefinitely. Also acquires an abandoned mutex. Throws code 2 on failure.
  void lock();

  // Throws code 3 on failure.
  void unlock();

 private:
  Platform::UniqueHandle handle;
  std::wstring name;
  [[maybe_unused]] std::uint32_t reserved = 0;
  bool released = true;
};

}  // namespace Vx::Tessel::Server::Storage
