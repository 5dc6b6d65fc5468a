#include "RealWorldMedia.h"

namespace vantrix::testing {

std::optional<std::filesystem::path> realWorldDir() {
  const std::filesystem::path dir(VANTRIX_REAL_WORLD_DIR);
  std::error_code ec;
  if (!std::filesystem::is_directory(dir, ec)) return std::nullopt;
  return dir;
}

std::filesystem::path realWorldFile(const char* relative) {
  return std::filesystem::path(VANTRIX_REAL_WORLD_DIR) / relative;
}

}  // namespace vantrix::testing
