#pragma once

#include <chrono>
#include <cstdint>
#include <string>

#include "records/record.h"

namespace Vx::Tessel::Server::Records {

// The records of one delivery, from its event to its end. Used by one thread at a time.
class Delivery {
 public:
  // Gives the delivery the next number of this process. `subject` holds its kind, the code of its
  // event, the subscription and its target.
  explicit Delivery(Record subject) noexcept;
  Delivery(const Delivery&) = delete;
  Delivery& operator=(const Delivery&) = delete;
  // Records a delivery that has not ended as failed by an exception.
  ~Delivery();

  // Records that it waits, for at most `delay`.
  void Waits(std::chrono::milliseconds delay) noexcept;

  // Records its end. Later calls do nothing.
  void Ends(const Outcome& outcome) noexcept;

 private:
  Record record;
  std::uint64_t start;
};

// The outcome of a delivery that an exception with this code ended.
constexpr Outcome FailedWith(std::int32_t code, Reason reason = Reason::Exception) {
  return {Decision::Failed, reason, static_cast<std::uint32_t>(code)};
}

}  // namespace Vx::Tessel::Server::Records
