#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "platform/app_services.h"

namespace Vx::Tests {

// App services that keep what they are sent. Any thread.
class FakeAppServices final : public Platform::AppServices {
 public:
  std::unique_ptr<Platform::AppService> Open(const std::wstring& packageFamilyName,
                                             const std::wstring& appServiceName) override {
    return std::make_unique<Conversation>(*this, packageFamilyName + L"/" + appServiceName + L" ");
  }

  // "family/service text", in the order of sending; the text "restarted" is a SystemRestarted.
  std::vector<std::wstring> Sent() const {
    const std::lock_guard guard(mutex);
    return sent;
  }

  // Runs on the sending thread, before the text counts as sent.
  std::function<void()> onSend = [] {};

  // What every text is answered with; 0 is success.
  int status = 1;

 private:
  class Conversation final : public Platform::AppService {
   public:
    Conversation(FakeAppServices& services, std::wstring target)
        : owner(services), prefix(std::move(target)) {}

    std::pair<int, std::wstring> Send(const std::wstring& text) override {
      owner.onSend();
      const std::lock_guard guard(owner.mutex);
      owner.sent.push_back(prefix + text);
      return {owner.status, L"ignored"};
    }
    void SystemRestarted() override {
      const std::lock_guard guard(owner.mutex);
      owner.sent.push_back(prefix + L"restarted");
    }

   private:
    FakeAppServices& owner;
    std::wstring prefix;
  };

  mutable std::mutex mutex;
  std::vector<std::wstring> sent;  // guarded by mutex
};

}  // namespace Vx::Tests
