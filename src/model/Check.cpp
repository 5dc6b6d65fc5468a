#include "model/Check.h"

#include <cstdio>
#include <cstdlib>

namespace vantrix::detail {

void fatalCheckFailed(const char* expression, const char* what, const char* file, int line) {
  std::fprintf(stderr, "vantrix: fatal: %s (check '%s' failed at %s:%d)\n", what, expression, file, line);
  std::fflush(stderr);
  std::abort();
}

}  // namespace vantrix::detail
