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

// Whether the command of a one-shot subscription has run. One stored request may be registered
// several times, and all its registrations share one mark. Any thread.
class FiringMark {
 public:
  // Calls `run` unless it has run or may not, or `due` returns false. A concurrent call waits
  // before it calls `due`. An exception passes to the caller, and the command may run again.
  // Returns whether this call ran it.
  bool RunOnce(
      const std::function<void()>& run, const std::function<bool()>& due = [] { return true; });

  // The same, but returns false at once during another call.
  bool RunOnceUnlessRunning(const std::function<void()>& run);

  // Called by `due` when it will return true: MayRun returns false from now on, unless `run` fails.
  void Begin() noexcept { begun = true; }

  bool HasRun() const noexcept { return hasRun; }
  // Whether it has run and its request may still be stored.
  bool AwaitsCompletion() const noexcept { return hasRun && !retired; }
  bool MayRun() const noexcept { return !hasRun && !retired && !begun; }

  // Its request is gone: a command that has not begun does not run, and one that is running does
  // not run again when it fails. Does not wait.
  void Retire() noexcept { retired = true; }

 private:
  bool RunInTurn(const std::function<void()>& run, const std::function<bool()>& due);

  std::mutex turn;  // held during a run and the decision before it
  std::atomic<bool> begun{false};
  std::atomic<bool> hasRun{false};
  std::atomic<bool> retired{false};
};

// The marks of the stored package requests of this process, by the stored text. Any thread. Its
// lock is the innermost: no other is taken under it.
class FiringMarks {
 public:
  FiringMarks() = delete;

  // Returns the mark of a request that was stored before.
  static std::shared_ptr<FiringMark> Of(const std::wstring& stored);

  // Returns the mark for a request that was stored just now: a new one, unless a replay that has
  // read the list since made it already.
  static std::shared_ptr<FiringMark> Renew(const std::wstring& stored);

  // Retires the mark of a request that is no longer stored, and forgets it unless the text has
  // another by now.
  static void Forget(const std::wstring& stored, const std::shared_ptr<FiringMark>& mark);

  // Whether this is still the mark of the text.
  static bool IsCurrent(const std::wstring& stored, const std::shared_ptr<FiringMark>& mark);

  // Returns the requests whose command has run and that could not be completed yet.
  static std::vector<std::pair<std::wstring, std::shared_ptr<FiringMark>>> OfThoseThatHaveRun();

  // How many marks were forgotten so far. When that has changed since a list was read, a request of
  // that list may be gone.
  static std::uint64_t Forgotten();
};

}  // namespace Vx::Tessel::Server::Services::Orvane
