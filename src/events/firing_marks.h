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

// Whether the command of a one-shot subscription has run. Shared by all registrations of one stored
// request. Any thread.
class FiringMark {
 public:
  // Calls `run` unless the command has run or may no longer run, or `due` returns false. Waits for
  // a concurrent call before calling `due`. Exceptions propagate to the caller, and the command may
  // run again. Returns whether this call ran the command.
  bool RunOnce(
      const std::function<void()>& run, const std::function<bool()>& due = [] { return true; });

  // Like RunOnce without `due`, but returns false at once while another call is in progress.
  bool RunOnceUnlessRunning(const std::function<void()>& run);

  // `due` calls this before it returns true. MayRun then returns false, unless `run` fails.
  void Begin() noexcept { begun = true; }

  bool HasRun() const noexcept { return hasRun; }
  // Whether the command has run and its request may still be stored.
  bool AwaitsCompletion() const noexcept { return hasRun && !retired; }
  bool MayRun() const noexcept { return !hasRun && !retired && !begun; }

  // The request is gone: a command that has not begun never runs, and a running one is not repeated
  // if it fails. Does not wait.
  void Retire() noexcept { retired = true; }

 private:
  bool RunInTurn(const std::function<void()>& run, const std::function<bool()>& due);

  std::mutex turn;  // held while deciding and running
  std::atomic<bool> begun{false};
  std::atomic<bool> hasRun{false};
  std::atomic<bool> retired{false};
};

// This process's marks of stored package requests, by stored text. Any thread. Its lock is the
// innermost: no other lock is taken while it is held.
class FiringMarks {
 public:
  FiringMarks() = delete;

  // Returns the mark of an already stored request, creating it if necessary.
  static std::shared_ptr<FiringMark> Of(const std::wstring& stored);

  // Returns the mark for a just stored request: a new one, unless a replay has created it since.
  static std::shared_ptr<FiringMark> Renew(const std::wstring& stored);

  // Retires the mark of a removed request, and forgets it unless the text already has another.
  static void Forget(const std::wstring& stored, const std::shared_ptr<FiringMark>& mark);

  // Whether `mark` is still the mark for this text.
  static bool IsCurrent(const std::wstring& stored, const std::shared_ptr<FiringMark>& mark);

  // Returns the requests whose command has run but which could not be completed yet.
  static std::vector<std::pair<std::wstring, std::shared_ptr<FiringMark>>> OfThoseThatHaveRun();

  // How many marks have been forgotten so far. If the number has changed since a list was read, a
  // request in that list may be gone.
  static std::uint64_t Forgotten();
};

}  // namespace Vx::Tessel::Server::Services::Orvane
