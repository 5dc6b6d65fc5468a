// libFuzzer target: arbitrary bytes through the session decoder, the encoder and the restore
// (the properties are in SessionProperties.h). Built with VANTRIX_FUZZ=ON; run by `make fuzz`.

#include "SessionProperties.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const auto violation =
      vantrix::fuzz::checkSessionProperties(std::string_view(reinterpret_cast<const char*>(data), size));
  if (violation) {
    std::fprintf(stderr, "session property violated: %s\n", violation->c_str());
    std::abort();
  }
  return 0;
}
