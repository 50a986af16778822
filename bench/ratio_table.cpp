#include "bench/ratio_table.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <exception>
#include <memory>

namespace Vx::Bench {

namespace {

constexpr int kBatches = 11;
constexpr int kFewBatches = 5;  // for operations that take a second
constexpr int kMostTurns = 20;  // for each side, in a batch
constexpr int kLeastTurns = 3;
constexpr double kBatchTime = 1e9;  // nanoseconds; batches of slow operations have fewer turns
constexpr double kLongTime = 4e9;   // a pair that takes longer is measured kFewBatches times

using Time = std::chrono::steady_clock;

double Nanoseconds(Time::duration length) {
  return std::chrono::duration<double, std::nano>(length).count();
}

double TimeTurn(std::size_t count, const std::function<void()>& operation) {
  const auto begin = Time::now();
  for (std::size_t i = 0; i < count; ++i) operation();
  return Nanoseconds(Time::now() - begin);
}

double Median(std::vector<double> values) {
  const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
  std::nth_element(values.begin(), middle, values.end());
  return *middle;
}

// The benchmarks choose the names, which are plain ASCII without quotes.
void WriteRow(std::FILE* file, const Row& row) {
  std::fprintf(file,
               "    {\"name\": \"%s\", \"against\": \"%s\", \"goal\": %.3f, \"ours_ns\": %.1f, "
               "\"theirs_ns\": %.1f, \"ratio\": %.3f}",
               row.name.c_str(), row.against.c_str(), row.goal, row.ours, row.theirs, row.ratio);
}

}  // namespace

void RatioTable::Compare(const std::string& name, const std::string& against, double goal,
                         std::size_t perTurn, const std::function<void()>& ours,
                         const std::function<void()>& theirs, const std::function<void()>& settle) {
  const bool brief = effort == Effort::Brief;
  const std::size_t count = brief ? 1 : perTurn;
  const auto turn = [&](const std::function<void()>& operation) {
    const double time = TimeTurn(count, operation) / static_cast<double>(count);
    settle();
    return time;
  };
  // The first pair warms up and shows how long a turn takes.
  const double pair = (turn(ours) + turn(theirs)) * static_cast<double>(count);
  const int batches = brief ? 1 : pair > kBatchTime ? kFewBatches : kBatches;
  const int turns = brief || pair > kLongTime
                        ? 1
                        : std::clamp(static_cast<int>(kBatchTime / pair), kLeastTurns, kMostTurns);
  std::vector<double> ourBatches;
  std::vector<double> theirBatches;
  for (int batch = 0; batch < batches; ++batch) {
    std::vector<double> ourTurns;
    std::vector<double> theirTurns;
    for (int i = 0; i < turns; ++i) {
      ourTurns.push_back(turn(ours));
      theirTurns.push_back(turn(theirs));
    }
    // The median, so that a turn that was preempted does not distort its batch.
    ourBatches.push_back(Median(std::move(ourTurns)));
    theirBatches.push_back(Median(std::move(theirTurns)));
  }
  Row row{.name = name, .against = against, .goal = goal};
  row.ours = Median(std::move(ourBatches));
  row.theirs = Median(std::move(theirBatches));
  row.ratio = row.theirs > 0 ? row.ours / row.theirs : 0;
  std::printf("  %-52s %7.3f\n", name.c_str(), row.ratio);
  std::fflush(stdout);
  rows.push_back(std::move(row));
}

void RatioTable::Report(const std::string& name, double value, const std::string& unit) {
  figures.push_back({name, value, unit});
}

void RatioTable::Print() const {
  std::printf("\n%-52s %12s %12s %7s %6s\n", "what", "ours ns", "theirs ns", "ratio", "goal");
  for (const Row& row : rows) {
    std::printf("%-52s %12.0f %12.0f %7.3f ", row.name.c_str(), row.ours, row.theirs, row.ratio);
    if (row.goal > 0) {
      std::printf("%6.2f%s\n", row.goal, row.ratio > row.goal ? "  over" : "");
    } else {
      std::printf("%6s\n", "-");
    }
    std::printf("    against %s\n", row.against.c_str());
  }
  for (const Figure& figure : figures) {
    std::printf("%-52s %12.1f %s\n", figure.name.c_str(), figure.value, figure.unit.c_str());
  }
}

bool RatioTable::WriteJson(const std::string& path) const {
  const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::fopen(path.c_str(), "wb"),
                                                             &std::fclose);
  if (file == nullptr) return false;
  std::fprintf(file.get(), "{\n  \"rows\": [\n");
  for (std::size_t i = 0; i < rows.size(); ++i) {
    WriteRow(file.get(), rows[i]);
    std::fprintf(file.get(), i + 1 < rows.size() ? ",\n" : "\n");
  }
  std::fprintf(file.get(), "  ],\n  \"figures\": [\n");
  for (std::size_t i = 0; i < figures.size(); ++i) {
    std::fprintf(file.get(), "    {\"name\": \"%s\", \"value\": %.3f, \"unit\": \"%s\"}%s\n",
                 figures[i].name.c_str(), figures[i].value, figures[i].unit.c_str(),
                 i + 1 < figures.size() ? "," : "");
  }
  std::fprintf(file.get(), "  ]\n}\n");
  return std::ferror(file.get()) == 0;
}

int RunBenchmarks(int argc, char** argv, const std::function<void(RatioTable&, Effort)>& body) {
  Effort effort = Effort::Full;
  const char* json = nullptr;
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "--brief") == 0) {
      effort = Effort::Brief;
    } else if (std::strcmp(argv[i], "--json") == 0 && i + 1 < argc) {
      json = argv[++i];
    } else {
      std::fprintf(stderr, "usage: %s [--brief] [--json FILE]\n", argv[0]);
      return 2;
    }
  }
  try {
    RatioTable table(effort);
    body(table, effort);
    table.Print();
    if (json != nullptr && !table.WriteJson(json)) {
      std::fprintf(stderr, "cannot write %s\n", json);
      return 2;
    }
    return 0;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "benchmark failed: %s\n", error.what());
    return 2;
  }
}

}  // namespace Vx::Bench
