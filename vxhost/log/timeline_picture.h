#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "vxhost/log/play_record.h"

namespace Vx::Host {

enum class Tone : std::uint8_t { Neutral, Good, Bad, Dropped };
enum class LaneKind : std::uint8_t { Machine, User, Service, Subscription };
enum class BarKind : std::uint8_t { Wait, Sleep, Standby };

struct PictureLane {
  LaneKind kind = LaneKind::Machine;
  std::wstring name;    // "power 18 + 30 s"
  std::wstring detail;  // "message to Maker.Resume"; empty for the three fixed lanes
};

// Something that takes time in a lane.
struct PictureBar {
  std::size_t lane = 0;
  BarKind kind = BarKind::Wait;
  std::chrono::milliseconds from{};
  std::chrono::milliseconds to{};
  bool open = false;  // not over when the record ends
  std::wstring text;
};

// One log line or event, or several equal ones that a poll repeated.
struct PictureLine {
  std::chrono::milliseconds first{};
  std::chrono::milliseconds last{};
  std::size_t count = 1;
  std::wstring level;  // "EVENT" for an event of the machine
  std::wstring caller;
  std::wstring message;
};

// What happened or was decided at a moment, with the lines that belong to it.
struct PictureMark {
  std::size_t lane = 0;
  std::chrono::milliseconds at{};
  Tone tone = Tone::Neutral;
  std::wstring text;
  std::wstring reason;
  std::vector<PictureLine> lines;
};

// A step of a scenario that says something, in front of mark number `mark`.
struct PictureHeading {
  std::size_t mark = 0;
  std::chrono::milliseconds at{};
  std::wstring text;
};

struct Picture {
  std::chrono::milliseconds end{};
  std::vector<PictureLane> lanes;
  std::vector<PictureBar> bars;
  std::vector<PictureMark> marks;  // in their order in time
  std::vector<PictureHeading> headings;
};

// Draws what the module decided, from the records among `entries`, with the lines of each delivery,
// which their thread joins. Without steps, which the log of a running service lacks, there are no
// headings. `stored` are texts of subscriptions that were made before.
Picture PictureOf(const std::vector<RecordStep>& steps, const std::vector<RecordEntry>& entries,
                  const std::vector<std::wstring>& stored = {});

}  // namespace Vx::Host
