// vantrix-bench: runs one workload of the editor through the real library code and prints its
// measurements as one line of JSON on stdout. On failure it prints the user-facing error text on
// stderr and exits with 1; a usage mistake exits with 2.

#include "BenchSupport.h"
#include "Commands.h"

#include <QLoggingCategory>

extern "C" {
#include <libavutil/log.h>
}

#include <array>
#include <iostream>
#include <vector>

namespace vantrix::bench {

std::span<const Command> commands() {
  static constexpr std::array<Command, 6> kCommands{{
      {"open", "SOURCE", &runOpen},
      {"thumbnails", "SOURCE --count N --height PX", &runThumbnails},
      {"export", "SOURCE OUTPUT [--trim START END] [--segment START END SPEED]...", &runExport},
      {"session", "SOURCE [--trim START END] [--segment START END SPEED]...", &runSession},
      {"playback", "SOURCE [--trim START END] [--segment START END SPEED]... --from T --seconds S", &runPlayback},
      {"edit-latency", "SOURCE", &runEditLatency},
  }};
  return kCommands;
}

}  // namespace vantrix::bench

namespace {

int usage() {
  std::cerr << "usage: vantrix-bench SUBCOMMAND ARGS...\n";
  for (const auto& command : vantrix::bench::commands())
    std::cerr << "  vantrix-bench " << command.name << " " << command.synopsis << "\n";
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  // stderr carries only the user-facing message: FFmpeg's diagnostics and the editor's info lines
  // are for the application's log, not for scripts reading this tool.
  av_log_set_level(AV_LOG_QUIET);
  QLoggingCategory::setFilterRules(QStringLiteral("vantrix.*.info=false"));

  if (argc < 2) return usage();
  const std::vector<std::string_view> args(argv + 1, argv + argc);
  for (const auto& command : vantrix::bench::commands())
    if (command.name == args.front()) return command.run(std::span(args).subspan(1));
  return usage();
}
