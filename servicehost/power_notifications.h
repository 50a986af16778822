#pragma once

#include <cstdint>
#include <functional>

namespace Vx::Host {

// Receives the notifications of suspend and resume for the life of this object. On a machine with
// Modern Standby they may come without a service control.
class PowerNotifications {
 public:
  // Called on a thread of the system with a PBT_ code. Must not throw.
  using Receiver = std::function<void(std::uint32_t code)>;

  explicit PowerNotifications(Receiver receive);
  PowerNotifications(const PowerNotifications&) = delete;
  PowerNotifications& operator=(const PowerNotifications&) = delete;
  ~PowerNotifications();

 private:
  // As Windows takes it.
  struct Recipient {
    void* callback;
    void* context;
  };

  Receiver receiver;
  Recipient recipient;
  void* handle = nullptr;
};

}  // namespace Vx::Host
