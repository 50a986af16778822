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

// One HTML page in UTF-8 that needs nothing else: timeline.html with the picture as JSON, which its
// script draws. No text of a client can end the script element that holds it.
std::string TimelinePage(const PageHead& head, const Picture& picture);

}  // namespace Vx::Host
