#include "events/firing_marks.h"

#include <map>

namespace Vx::Tessel::Server::Services::Orvane {

namespace {

struct Marks {
  std::mutex mutex;  // guards the members below
  std::map<std::wstring, std::shared_ptr<FiringMark>> byText;
  std::uint64_t forgotten = 0;
};

// Never destroyed, because a notification may outlive every service.
Marks& All() {
  static auto& marks = *new Marks();
  return marks;
}

}  // namespace

bool FiringMark::RunOnce(const std::function<void()>& run, const std::function<bool()>& due) {
  const std::lock_guard guard(turn);
  return RunInTurn(run, due);
}

bool FiringMark::RunOnceUnlessRunning(const std::function<void()>& run) {
  const std::unique_lock guard(turn, std::try_to_lock);
  return guard.owns_lock() && RunInTurn(run, [] { return true; });
}

bool FiringMark::RunInTurn(const std::function<void()>& run, const std::function<bool()>& due) {
  if (!MayRun()) return false;
  try {
    if (due()) {
      run();
      hasRun = true;
    }
  } catch (...) {
    begun = false;
    throw;
  }
  begun = false;
  return hasRun;
}

std::shared_ptr<FiringMark> FiringMarks::Of(const std::wstring& stored) {
  Marks& all = All();
  const std::lock_guard guard(all.mutex);
  auto& mark = all.byText[stored];
  if (mark == nullptr) mark = std::make_shared<FiringMark>();
  return mark;
}

std::shared_ptr<FiringMark> FiringMarks::Renew(const std::wstring& stored) {
  Marks& all = All();
  const std::lock_guard guard(all.mutex);
  auto& mark = all.byText[stored];
  if (mark == nullptr || mark->HasRun()) mark = std::make_shared<FiringMark>();
  return mark;
}

void FiringMarks::Forget(const std::wstring& stored, const std::shared_ptr<FiringMark>& mark) {
  mark->Retire();
  Marks& all = All();
  const std::lock_guard guard(all.mutex);
  const auto found = all.byText.find(stored);
  if (found == all.byText.end() || found->second != mark) return;
  all.byText.erase(found);
  ++all.forgotten;
}

bool FiringMarks::IsCurrent(const std::wstring& stored, const std::shared_ptr<FiringMark>& mark) {
  Marks& all = All();
  const std::lock_guard guard(all.mutex);
  const auto found = all.byText.find(stored);
  return found != all.byText.end() && found->second == mark;
}

std::vector<std::pair<std::wstring, std::shared_ptr<FiringMark>>>
FiringMarks::OfThoseThatHaveRun() {
  Marks& all = All();
  const std::lock_guard guard(all.mutex);
  std::vector<std::pair<std::wstring, std::shared_ptr<FiringMark>>> run;
  for (const auto& entry : all.byText) {
    if (entry.second->HasRun()) run.emplace_back(entry);
  }
  return run;
}

std::uint64_t FiringMarks::Forgotten() {
  Marks& all = All();
  const std::lock_guard guard(all.mutex);
  return all.forgotten;
}

}  // namespace Vx::Tessel::Server::Services::Orvane
