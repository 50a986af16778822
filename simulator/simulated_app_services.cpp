#include "simulator/simulated_app_services.h"

namespace Vx::Simulator {

class SimulatedAppServices::Conversation final : public Platform::AppService {
 public:
  Conversation(SimulatedAppServices& services, Message envelope)
      : owner(services), message(std::move(envelope)) {}

  std::pair<int, std::wstring> Send(const std::wstring& text) override {
    message.text = text;
    return owner.Take(message);
  }

  void SystemRestarted() override {
    owner.timeline.Add(L"the app services are notified that the machine came up again");
  }

 private:
  SimulatedAppServices& owner;
  Message message;
};

void SimulatedAppServices::SetReplies(std::deque<Reply> next, Reply usual) {
  const std::lock_guard guard(mutex);
  replies = std::move(next);
  usualReply = std::move(usual);
}

std::vector<SimulatedAppServices::Message> SimulatedAppServices::Messages() const {
  const std::lock_guard guard(mutex);
  return messages;
}

std::unique_ptr<Platform::AppService> SimulatedAppServices::Open(
    const std::wstring& packageFamilyName, const std::wstring& appServiceName) {
  return std::make_unique<Conversation>(*this, Message{packageFamilyName, appServiceName, {}});
}

SimulatedAppServices::Reply SimulatedAppServices::Take(const Message& message) {
  Reply reply;
  {
    const std::lock_guard guard(mutex);
    messages.push_back(message);
    reply = usualReply;
    if (!replies.empty()) {
      reply = std::move(replies.front());
      replies.pop_front();
    }
  }
  timeline.Add(message.packageFamilyName + L"/" + message.appServiceName + L" receives " +
               message.text + L" and returns " + std::to_wstring(reply.first));
  return reply;
}

}  // namespace Vx::Simulator
