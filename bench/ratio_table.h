#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

namespace Vx::Bench {

// The length of a run. Brief only proves that a benchmark still works. Its figures mean nothing.
enum class Effort { Full, Brief };

// One line of the table: the cost of A compared with B, both in nanoseconds per operation.
struct Row {
  std::string name;
  std::string against;
  double goal = 0;  // largest acceptable ratio; 0: reported only
  double ours = 0;
  double theirs = 0;
  double ratio = 0;
};

// A single figure that is not compared with another.
struct Figure {
  std::string name;
  double value = 0;
  std::string unit;
};

// Measures pairs and prints them.
//
// A pair is timed in turns, in one process: some operations of A, the same number of B, and so on,
// so that other work on the machine affects both. A batch's figure is the median of its turns. The
// ratio is that of the medians over the batches.
class RatioTable {
 public:
  explicit RatioTable(Effort howLong) : effort(howLong) {}

  // `ours` and `theirs` each perform one operation. `perTurn` operations are timed together: enough
  // to hide the clock's resolution of 100 ns, few enough to keep turns short. Slow operations get
  // fewer turns. `settle` runs after each turn and is not timed.
  void Compare(
      const std::string& name, const std::string& against, double goal, std::size_t perTurn,
      const std::function<void()>& ours, const std::function<void()>& theirs,
      const std::function<void()>& settle = [] {});

  void Report(const std::string& name, double value, const std::string& unit);

  // Prints the table on standard output.
  void Print() const;

  // Writes the table as one JSON document to `path`. Returns false on failure.
  bool WriteJson(const std::string& path) const;

 private:
  Effort effort;
  std::vector<Row> rows;
  std::vector<Figure> figures;
};

// Runs a benchmark program: `--brief` for a short run, `--json FILE` for the JSON document. Returns
// the exit code: 0, or 2 for a usage error or a failure.
int RunBenchmarks(int argc, char** argv, const std::function<void(RatioTable&, Effort)>& body);

// Prevents the compiler from removing a result.
template <typename T>
inline void Keep(const T& value) {
  asm volatile("" : : "g"(&value) : "memory");
}

}  // namespace Vx::Bench
