#pragma once

#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "platform/system_services.h"
#include "simulator/timeline.h"

namespace Vx::Simulator {

// The app services of the simulated packaged apps. Initially they reply with success. Thread-safe.
class SimulatedAppServices final : public Platform::AppServices {
 public:
  using Reply = std::pair<int, std::wstring>;

  struct Message {
    std::wstring packageFamilyName;
    std::wstring appServiceName;
    std::wstring text;
  };

  explicit SimulatedAppServices(Timeline& log) : timeline(log) {}

  // Sets the replies to the next messages, one each. Later messages receive `usual`.
  void SetReplies(std::deque<Reply> next, Reply usual = {0, L""});

  std::vector<Message> Messages() const;

  std::unique_ptr<Platform::AppService> Open(const std::wstring& packageFamilyName,
                                             const std::wstring& appServiceName) override;

 private:
  class Conversation;

  Reply Take(const Message& message);

  Timeline& timeline;
  mutable std::mutex mutex;  // guards everything below
  std::vector<Message> messages;
  std::deque<Reply> replies;
  Reply usualReply{0, L""};
};

}  // namespace Vx::Simulator
