#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "vxhost/log/play_record.h"

namespace Vx::Hosting::Tool {

// The heading above the timeline.
struct PageHead {
  std::wstring title;
  std::wstring verdict;  // empty if there were no expectations
  bool met = true;
  // The local time at which the page begins, in milliseconds since 1970. Empty if the page shows
  // the time since its beginning instead of clock times.
  std::optional<std::int64_t> begin = {};
};

// Returns a self-contained HTML page in UTF-8: timeline.html with the events as JSON, which its
// scripts draw. No client's text can close the script element that contains it. `steps` is empty
// for a service's log. `stored` contains the texts of subscriptions made before the log starts.
std::string TimelinePage(const PageHead& head, const std::vector<RecordStep>& steps,
                         const std::vector<RecordEntry>& entries,
                         const std::vector<std::wstring>& stored = {});

}  // namespace Vx::Hosting::Tool
