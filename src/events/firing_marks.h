#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace Vx::Tessel::Server::Services::Orvane {

// Whether a one-shot subscription has run. Shared by all registrations of its request. Thread-safe.
class FiringMark {
 public:
  // Calls `run` unless the command has run or may no longer run, or `due` returns false. Waits for
  // a concurrent call to finish before calling `due`. Exceptions propagate to the caller, and the
  // command may then run again. Returns whether this call ran the command.
  bool RunOnce(
      const std::function<void()>& run, const std::function<bool()>& due = [] { return true; });

  // Like RunOnce without `due`, but returns false at once if another call is in progress.
  bool RunOnceUnlessRunning(const std::function<void()>& run);

  // `due` calls this before it returns true. MayRun then returns false, unless `run` throws.
  void Begin() noexcept { begun = true; }

  bool HasRun() const noexcept { return hasRun; }
  // Returns whether the command has run and its request may still be stored.
  bool AwaitsCompletion() const noexcept { return hasRun && !retired; }
  bool MayRun() const noexcept { return !hasRun && !retired && !begun; }

  // Marks the request as removed: a command that has not started never runs, and a running one is
  // not repeated if it fails. Does not wait.
  void Retire() noexcept { retired = true; }

 private:
  bool RunInTurn(const std::function<void()>& run, const std::function<bool()>& due);

  std::mutex turn;  // held while deciding and running
  std::atomic<bool> begun{false};
  std::atomic<bool> hasRun{false};
  std::atomic<bool> retired{false};
};

// This process's marks for stored package requests, keyed by stored text. Thread-safe. No other
// lock is acquired while its lock is held.
class FiringMarks {
 public:
  FiringMarks() = delete;

  // Returns the mark of an already stored request, creating it if necessary.
  static std::shared_ptr<FiringMark> Of(const std::wstring& stored);

  // Returns the mark of a newly stored request: a new one, unless a replay has already created one.
  static std::shared_ptr<FiringMark> Renew(const std::wstring& stored);

  // Retires the mark of a removed request. Forgets it unless the text already has another mark.
  static void Forget(const std::wstring& stored, const std::shared_ptr<FiringMark>& mark);

  // Returns whether `mark` is still the mark for this text.
  static bool IsCurrent(const std::wstring& stored, const std::shared_ptr<FiringMark>& mark);

  // Returns the requests, with their marks, that have run but could not be completed yet.
  static std::vector<std::pair<std::wstring, std::shared_ptr<FiringMark>>> OfThoseThatHaveRun();

  // Returns how many marks have been forgotten so far. If the number has changed since a list was
  // read, a request in that list may have been removed.
  static std::uint64_t Forgotten();
};

}  // namespace Vx::Tessel::Server::Services::Orvane
