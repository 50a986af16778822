#pragma once

#include <string>
#include <vector>

#include "vxhost/log/play_record.h"

namespace Vx::Hosting::Tool {

// The heading above the timeline.
struct PageHead {
  std::wstring title;
  std::wstring verdict;  // empty if there were no expectations
  bool met = true;
};

// Returns a self-contained HTML page in UTF-8: timeline.html with the events as JSON, which its
// scripts draw. No client's text can end the script element that contains it. A running service's
// log has no steps. `stored` are the texts of subscriptions made before the log starts.
std::string TimelinePage(const PageHead& head, const std::vector<RecordStep>& steps,
                         const std::vector<RecordEntry>& entries,
                         const std::vector<std::wstring>& stored = {});

}  // namespace Vx::Hosting::Tool
