#pragma once

#include "host/com_ptr.h"

namespace Vx::Platform {

using Abi::ComPtr;

}  // namespace Vx::Platform
