#pragma once

#include <string>
#include <vector>

#include "vxhost/log/play_record.h"

namespace Vx::Host {

// What stands above the picture.
struct PageHead {
  std::wstring title;
  std::wstring verdict;  // empty if nothing was expected
  bool met = true;
};

// One HTML page in UTF-8 that needs nothing else: timeline.html with what happened as JSON, from
// which its scripts make the picture. No text of a client can end the script element that holds it.
// The log of a running service has no steps. `stored` are texts of subscriptions that were made
// before.
std::string TimelinePage(const PageHead& head, const std::vector<RecordStep>& steps,
                         const std::vector<RecordEntry>& entries,
                         const std::vector<std::wstring>& stored = {});

}  // namespace Vx::Host
