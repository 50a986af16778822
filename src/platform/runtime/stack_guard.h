#pragma once

#include <cstdint>

// The canary between a function's buffers and its return address, different in each process. A
// function that finds it changed terminates the process with a fail-fast, status 0xC0000409.
extern "C" std::uintptr_t
    __stack_chk_guard;  // NOLINT(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)
