// Replaces the C library's header, which a compiler without Microsoft's headers lacks.
#pragma once

extern "C" void free(void* memory);
