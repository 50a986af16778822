#pragma once

#include "platform/windows/deferred_library.h"

namespace Vx::Platform {

// oleaut32.dll, which provides WMI's strings, arrays and variants.
DeferredLibrary& Automation() noexcept;

}  // namespace Vx::Platform
