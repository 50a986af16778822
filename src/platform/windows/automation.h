#pragma once

#include "platform/windows/deferred_library.h"

namespace Vx::Platform {

// oleaut32.dll, which owns the texts, arrays and variants of WMI.
DeferredLibrary& Automation() noexcept;

}  // namespace Vx::Platform
