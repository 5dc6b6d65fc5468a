#pragma once

// Always-on fatal checks for programming errors in time arithmetic (overflow, zero divisor, a
// timescale below 1). Unlike assert() these stay in release builds: a wrapped or saturated time
// would silently corrupt every frame and session downstream, so the process stops instead.

namespace vantrix::detail {
[[noreturn]] void fatalCheckFailed(const char* expression, const char* what, const char* file, int line);
}

// Stops the process with a message naming the failed condition when `cond` is false.
#define VANTRIX_CHECK(cond, what)                                                   \
  do {                                                                              \
    if (!(cond)) [[unlikely]]                                                       \
      ::vantrix::detail::fatalCheckFailed(#cond, (what), __FILE__, __LINE__);       \
  } while (false)
