// Replaces the C library's header, which is unavailable without Microsoft's headers.
#pragma once

extern "C" void free(void* memory);
