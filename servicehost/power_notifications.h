#pragma once

#include <cstdint>
#include <functional>

namespace Vx::Hosting::ServiceHost {

// Receives power notifications of one kind for the life of this object.
class PowerNotifications {
 public:
  enum class Kind {
    // The console display's state, immediately and then at each change: 0 off, 1 on, 2 dimmed.
    Display,
    // PBT_ codes for suspend and resume. Do not use in a service, which receives them from the
    // service manager, and in which the call that registers may never return
    // (https://github.com/libuv/libuv/issues/1995).
    Sleep,
  };
  // Called on a system thread. Must not throw.
  using Receiver = std::function<void(std::uint32_t value)>;

  // Throws std::system_error if registration fails.
  PowerNotifications(Kind kind, Receiver receive);
  PowerNotifications(const PowerNotifications&) = delete;
  PowerNotifications& operator=(const PowerNotifications&) = delete;
  // Waits for a running call to the receiver.
  ~PowerNotifications();

 private:
  // DEVICE_NOTIFY_SUBSCRIBE_PARAMETERS, which this toolchain's headers do not declare.
  struct Recipient {
    void* callback;
    void* context;
  };

  const Kind kind;
  Receiver receiver;
  Recipient recipient;
  void* handle = nullptr;
};

// Returns whether this machine has Modern Standby (the AoAc power capability).
bool HasModernStandby();

}  // namespace Vx::Hosting::ServiceHost
