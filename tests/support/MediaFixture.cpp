#include "MediaFixture.h"

#include "FixtureWriter.h"

#include <unistd.h>

#include <array>
#include <cctype>
#include <cstdlib>
#include <fstream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace vantrix::testing {
namespace {

// Variable-rate recipes cycle their frame durations through these tenths of the nominal duration:
// no two neighbours last the same, and each cycle averages exactly the nominal rate.
constexpr std::array<std::int64_t, 7> kVariableTenths{10, 8, 13, 9, 11, 7, 12};
constexpr std::int64_t kVariableTenthsPerCycle = 70;
// Fine enough for the irregular durations at every common rate, and within MPEG-4 Part 2's
// 16-bit time resolution.
constexpr std::int64_t kVariableTimescale = 60000;

// The tones start high enough for a short window to hold many cycles and step widely enough for
// a Hann-windowed Goertzel filter over 0.05 s to keep neighbours apart; sixty of them (a minute of
// source, longer than fixtures need) reach 3200 Hz, far below any AAC low-pass.
constexpr double kLowestTone = 250;
constexpr double kToneStep = 50;

constexpr std::uintmax_t kZeroedHeaderBytes = 4096;

// One folder per test process holding every file made so far, removed when the process ends.
class FixtureCache {
 public:
  FixtureCache()
      : m_folder(std::filesystem::temp_directory_path() / ("vantrix-fixtures-" + std::to_string(::getpid()))) {
    std::filesystem::remove_all(m_folder);  // left by a crashed process that had our pid
    std::filesystem::create_directories(m_folder);
  }
  ~FixtureCache() {
    std::error_code ignored;
    if (std::getenv("VANTRIX_KEEP_FIXTURES") == nullptr) std::filesystem::remove_all(m_folder, ignored);
  }
  FixtureCache(const FixtureCache&) = delete;
  FixtureCache& operator=(const FixtureCache&) = delete;

  const std::filesystem::path* find(const FixtureSpec& recipe) const {
    for (const auto& [known, path] : m_files)
      if (known == recipe) return &path;
    return nullptr;
  }
  void add(const FixtureSpec& recipe, std::filesystem::path path) { m_files.emplace_back(recipe, std::move(path)); }
  std::size_t size() const { return m_files.size(); }
  const std::filesystem::path& folder() const { return m_folder; }

 private:
  std::filesystem::path m_folder;
  std::vector<std::pair<FixtureSpec, std::filesystem::path>> m_files;
};

FixtureCache& cache() {
  static FixtureCache instance;
  return instance;
}

std::string extensionOf(const FixtureSpec& recipe) {
  const char* lower = recipe.container == Container::mov ? "mov" : recipe.container == Container::m4v ? "m4v" : "mp4";
  std::string ext = lower;
  if (recipe.upperCaseExtension)
    for (char& c : ext) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return ext;
}

// A name that says what the file is, for whoever looks at a kept folder or a failure message;
// the leading number keeps names unique.
std::string fileNameFor(const FixtureSpec& recipe, std::size_t number) {
  static constexpr const char* kCodecs[] = {"h264", "mpeg4", "mjpeg"};
  static constexpr const char* kLayouts[] = {"silent", "mono", "stereo", "5.1"};
  static constexpr const char* kDamage[] = {"", "-truncated", "-zeroed"};
  std::string name = std::to_string(number) + "-";
  if (recipe.audioOnly)
    name += "audio";
  else if (recipe.coverArtOnly)
    name += "cover";
  else
    name += std::string(kCodecs[static_cast<int>(recipe.codec)]) + "-" + std::to_string(recipe.width) + "x" +
            std::to_string(recipe.height) + "-" + std::to_string(recipe.frameRateNum) + "_" +
            std::to_string(recipe.frameRateDen) + (recipe.variableFrameRate ? "vfr" : "") + "-r" +
            std::to_string(recipe.rotation);
  name += std::string("-") + kLayouts[static_cast<int>(recipe.audio)];
  if (recipe.audio != AudioLayout::none) name += recipe.audioCodec == AudioCodec::pcm ? "-pcm" : "-aac";
  return name + kDamage[static_cast<int>(recipe.damage)] + "." + extensionOf(recipe);
}

void damage(const std::filesystem::path& file, Damage kind) {
  const std::uintmax_t size = std::filesystem::file_size(file);
  if (kind == Damage::truncated) {
    std::filesystem::resize_file(file, size / 2);
    return;
  }
  std::fstream stream(file, std::ios::in | std::ios::out | std::ios::binary);
  const std::string zeros(std::min(size, kZeroedHeaderBytes), '\0');
  stream.write(zeros.data(), static_cast<std::streamsize>(zeros.size()));
  if (!stream) throw std::runtime_error("cannot damage " + file.string());
}

}  // namespace

void validate(const FixtureSpec& recipe) {
  auto refuse = [](const std::string& why) { throw std::runtime_error("fixture recipe refused: " + why); };
  if (recipe.rotation != 0 && recipe.rotation != 90 && recipe.rotation != 180 && recipe.rotation != 270)
    refuse("rotation " + std::to_string(recipe.rotation) + " is not a quarter turn");
  if (recipe.width < 16 || recipe.height < 16 || recipe.width % 2 != 0 || recipe.height % 2 != 0)
    refuse("frame size must be even and at least 16x16");
  if (recipe.frameRateNum < 1 || recipe.frameRateDen < 1) refuse("frame rate must be positive");
  if (!(recipe.seconds > 0)) refuse("length must be positive");
  if (recipe.gopFrames < 1) refuse("keyframe interval must be positive");
  if (recipe.sampleRate < 8000) refuse("sample rate below 8000");
  if (recipe.audioOnly && recipe.coverArtOnly) refuse("audio-only and cover-art-only exclude each other");
  if ((recipe.audioOnly || recipe.coverArtOnly) && recipe.audio == AudioLayout::none)
    refuse("a file without video needs audio");
  const bool quickTimeMuxer = recipe.container == Container::mov ||
                              (recipe.audio != AudioLayout::none && recipe.audioCodec == AudioCodec::pcm);
  if (recipe.coverArtOnly && quickTimeMuxer) refuse("the QuickTime muxer drops cover art; use .mp4 or .m4v with AAC");
  if (recipe.container == Container::m4v && !quickTimeMuxer && !recipe.audioOnly && !recipe.coverArtOnly &&
      recipe.codec == VideoCodec::mjpeg)
    refuse(".m4v takes H.264 or MPEG-4 Part 2 video, not Motion JPEG");
}

std::int64_t videoTimescale(const FixtureSpec& recipe) {
  if (recipe.variableFrameRate) return kVariableTimescale;
  // The mov muxer's own choice: the rate's numerator doubled up to at least 10000, so that every
  // frame lasts a whole number of ticks.
  std::int64_t timescale = recipe.frameRateNum;
  while (timescale < 10000) timescale *= 2;
  return timescale;
}

std::int64_t frameTicks(const FixtureSpec& recipe, std::int64_t frameIndex) {
  const std::int64_t timescale = videoTimescale(recipe);
  if (!recipe.variableFrameRate) return frameIndex * (timescale / recipe.frameRateNum) * recipe.frameRateDen;
  std::int64_t tenths = frameIndex / static_cast<std::int64_t>(kVariableTenths.size()) * kVariableTenthsPerCycle;
  for (std::int64_t i = 0; i < frameIndex % static_cast<std::int64_t>(kVariableTenths.size()); ++i)
    tenths += kVariableTenths[static_cast<std::size_t>(i)];
  // tenths * nominal duration / 10, rounded to the nearest tick
  const std::int64_t den = 10 * recipe.frameRateNum;
  return (2 * tenths * timescale * recipe.frameRateDen + den) / (2 * den);
}

RationalTime frameTime(const FixtureSpec& recipe, std::int64_t frameIndex) {
  return {frameTicks(recipe, frameIndex), videoTimescale(recipe)};
}

std::int64_t frameCount(const FixtureSpec& recipe) {
  if (recipe.audioOnly || recipe.coverArtOnly) return 0;
  const double end = recipe.seconds * static_cast<double>(videoTimescale(recipe));
  std::int64_t count = 0;
  while (static_cast<double>(frameTicks(recipe, count)) < end - 1e-6) ++count;
  return count;
}

double toneForSecond(int second) {
  const int slot = ((second % kDistinctToneSeconds) + kDistinctToneSeconds) % kDistinctToneSeconds;
  return kLowestTone + kToneStep * slot;
}

std::filesystem::path fixture(const FixtureSpec& recipe) {
  FixtureCache& files = cache();
  if (const auto* known = files.find(recipe)) return *known;
  validate(recipe);
  if (recipe.damage == Damage::none) {
    const std::filesystem::path target = files.folder() / fileNameFor(recipe, files.size());
    writeFixture(recipe, target);
    files.add(recipe, target);
    return target;
  }
  FixtureSpec whole = recipe;
  whole.damage = Damage::none;
  const std::filesystem::path source = fixture(whole);
  const std::filesystem::path target = files.folder() / fileNameFor(recipe, files.size());
  std::filesystem::copy_file(source, target, std::filesystem::copy_options::overwrite_existing);
  damage(target, recipe.damage);
  files.add(recipe, target);
  return target;
}

}  // namespace vantrix::testing
