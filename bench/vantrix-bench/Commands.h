#pragma once

// The entry point of each subcommand, one per file (OpenCommand.cpp, ...). A new subcommand adds
// its file, its declaration here and its row in main.cpp's table.

#include <span>
#include <string_view>

namespace vantrix::bench {

int runOpen(std::span<const std::string_view> args);
int runThumbnails(std::span<const std::string_view> args);
int runExport(std::span<const std::string_view> args);
int runSession(std::span<const std::string_view> args);
int runPlayback(std::span<const std::string_view> args);
int runEditLatency(std::span<const std::string_view> args);

}  // namespace vantrix::bench
