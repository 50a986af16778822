#pragma once

#include <cstdint>

// The value between a function's buffers and its return address. A function that finds it changed
// ends the process with a fail-fast, status 0xC0000409. Differs from one process to the next.
extern "C" std::uintptr_t
    __stack_chk_guard;  // NOLINT(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)
