#pragma once

// Internal to the fixture library: encoding one recipe, and the recipe's frame timing that the
// writer and the public frameTime/frameCount share.

#include "MediaFixture.h"

#include <cstdint>
#include <filesystem>

namespace vantrix::testing {

// Writes the undamaged file of `recipe` to `path` with libavformat/libavcodec. Throws
// std::runtime_error naming the failing step; a partly written file may remain at `path`.
void writeFixture(const FixtureSpec& recipe, const std::filesystem::path& path);

// Ticks per second of the recipe's video stream.
std::int64_t videoTimescale(const FixtureSpec& recipe);
// Start of source frame i in those ticks (frame i + 1 gives its end).
std::int64_t frameTicks(const FixtureSpec& recipe, std::int64_t frameIndex);
// Throws std::runtime_error when the recipe asks for something the writer cannot make.
void validate(const FixtureSpec& recipe);

}  // namespace vantrix::testing
