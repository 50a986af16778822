#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

namespace Vx::Bench {

// How long a run takes. Brief shows that a benchmark still works, and nothing about speed.
enum class Effort { Full, Brief };

// One line of the table: what A costs against B, both in nanoseconds an operation.
struct Row {
  std::string name;
  std::string against;
  double goal = 0;  // largest ratio that is good enough; 0: reported only
  double ours = 0;
  double theirs = 0;
  double ratio = 0;
};

// A single figure without a counterpart.
struct Figure {
  std::string name;
  double value = 0;
  std::string unit;
};

// Measures pairs and prints them.
//
// A pair is timed in turns, in one process: some operations of A, the same number of B, and so on,
// so that whatever the machine does meanwhile falls on both. A batch's figure is the median of
// its turns, the ratio that of the medians over the batches.
class RatioTable {
 public:
  explicit RatioTable(Effort howLong) : effort(howLong) {}

  // `ours` and `theirs` do one operation each. `perTurn` operations are timed together: enough that
  // the clock's 100 ns do not show, few enough that turns stay short. Slow operations get fewer
  // turns. `settle` runs after each turn and is not timed.
  void Compare(
      const std::string& name, const std::string& against, double goal, std::size_t perTurn,
      const std::function<void()>& ours, const std::function<void()>& theirs,
      const std::function<void()>& settle = [] {});

  void Report(const std::string& name, double value, const std::string& unit);

  // The table for people, on standard output.
  void Print() const;

  // The same as one JSON document in `path`; false when it cannot be written.
  bool WriteJson(const std::string& path) const;

 private:
  Effort effort;
  std::vector<Row> rows;
  std::vector<Figure> figures;
};

// Runs a benchmark program: `--brief` for a short run, `--json FILE` for the JSON document. Exit
// code 0; 2 for a usage error or a failure.
int RunBenchmarks(int argc, char** argv, const std::function<void(RatioTable&, Effort)>& body);

// Keeps a result from being optimised away.
template <typename T>
inline void Keep(const T& value) {
  asm volatile("" : : "g"(&value) : "memory");
}

}  // namespace Vx::Bench
