#include "records/delivery.h"

#include <atomic>
#include <utility>

#include "platform/clock.h"
#include "platform/machine.h"

namespace Vx::Tessel::Server::Records {

namespace {

constinit std::atomic<std::uint64_t> lastNumber{0};

std::uint64_t Now() noexcept {
  return Platform::CurrentMachine().clock->TickCount();
}

}  // namespace

Delivery::Delivery(Record subject) noexcept : record(std::move(subject)), start(Now()) {
  record.delivery = ++lastNumber;
}

Delivery::~Delivery() {
  Ends(FailedWith(0));
}

void Delivery::Waits(std::chrono::milliseconds delay) noexcept {
  record.outcome.decision = Decision::Waiting;
  record.milliseconds = static_cast<std::uint64_t>(delay.count());
  Write(record);
}

void Delivery::Ends(const Outcome& outcome) noexcept {
  if (record.outcome.decision > Decision::Waiting) return;
  record.outcome = outcome;
  record.milliseconds = Now() - start;
  Write(record);
}

}  // namespace Vx::Tessel::Server::Records
