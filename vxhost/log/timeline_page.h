#pragma once

#include <string>

#include "vxhost/log/timeline_picture.h"

namespace Vx::Host {

// What stands above the picture.
struct PageHead {
  std::wstring title;
  std::wstring verdict;  // empty if nothing was expected
  bool met = true;
};

// One HTML page in UTF-8 that needs nothing beside it: the picture with time from left to right,
// for narrow screens with time downward, and below it the list of its marks with their log lines.
// Readable without script, in light and dark, and on paper. Every text of a client is escaped.
std::string TimelinePage(const PageHead& head, const Picture& picture);

}  // namespace Vx::Host
