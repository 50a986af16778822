#pragma once

#include <cstdint>
#include <functional>

namespace Vx::Hosting::ServiceHost {

// Receives suspend and resume notifications for the life of this object. With Modern Standby, they
// may come without a service control.
class PowerNotifications {
 public:
  // Called on a system thread with a PBT_ code. Must not throw.
  using Receiver = std::function<void(std::uint32_t code)>;

  explicit PowerNotifications(Receiver receive);
  PowerNotifications(const PowerNotifications&) = delete;
  PowerNotifications& operator=(const PowerNotifications&) = delete;
  ~PowerNotifications();

 private:
  // DEVICE_NOTIFY_SUBSCRIBE_PARAMETERS, which this toolchain's headers do not declare.
  struct Recipient {
    void* callback;
    void* context;
  };

  Receiver receiver;
  Recipient recipient;
  void* handle = nullptr;
};

}  // namespace Vx::Hosting::ServiceHost
