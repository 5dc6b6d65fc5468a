// libFuzzer target: arbitrary bytes as a video file, opened the way the editor opens one
// (MediaOpening.h). Built with VANTRIX_FUZZ=ON; run by `make fuzz` in libFuzzer's fork mode, so that
// every input runs in a child process under a time limit (fuzz/README.md).

#include "MediaOpening.h"

#include <QLoggingCategory>

#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>

namespace {

// One file per process, so that the children of fork mode never share one.
std::filesystem::path inputFile(bool mov) {
  return std::filesystem::temp_directory_path() /
         ("vantrix-media-fuzz-" + std::to_string(getpid()) + (mov ? ".mov" : ".mp4"));
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  // Each refused input would log its refusal; thousands of lines a second only slow the run down.
  QLoggingCategory::setFilterRules(QStringLiteral("vantrix.media.info=false"));
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  // The lowest bit of the first byte picks the extension: both names reach the same demuxer, but
  // the loader checks the name first.
  const std::filesystem::path path = inputFile(size > 0 && (data[0] & 1) != 0);
  {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
    if (!out) {
      std::fprintf(stderr, "cannot write the input to %s\n", path.c_str());
      std::abort();
    }
  }
  const auto report = vantrix::fuzz::openLikeTheEditor(path);
  std::error_code ignored;
  std::filesystem::remove(path, ignored);
  if (report.violation) {
    std::fprintf(stderr, "media property violated: %s\n", report.violation->c_str());
    std::abort();
  }
  return 0;
}
