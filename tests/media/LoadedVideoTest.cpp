#include "media/LoadedVideo.h"

#include "LogCapture.h"
#include "MediaFixture.h"
#include "RealWorldMedia.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <fstream>
#include <functional>
#include <random>
#include <thread>

namespace vantrix {
namespace {

namespace fs = std::filesystem;
using testing::FixtureSpec;
using testing::LogCapture;
using Kind = AppError::Kind;

// A folder of its own for each test, removed afterwards.
class LoadedVideoTest : public ::testing::Test {
 protected:
  void SetUp() override {
    const auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
    m_dir = fs::temp_directory_path() / ("vantrix-load-" + std::to_string(::getpid()) + "-" + info->name());
    fs::remove_all(m_dir);
    fs::create_directories(m_dir);
  }
  void TearDown() override { fs::remove_all(m_dir); }

  fs::path copyAs(const fs::path& source, const std::string& name, std::uintmax_t keepBytes = UINTMAX_MAX) const {
    const fs::path target = m_dir / name;
    fs::copy_file(source, target, fs::copy_options::overwrite_existing);
    if (keepBytes < fs::file_size(target)) fs::resize_file(target, keepBytes);
    return target;
  }
  fs::path write(const std::string& name, const std::string& bytes) const {
    std::ofstream(m_dir / name, std::ios::binary) << bytes;
    return m_dir / name;
  }

  fs::path m_dir;
};

FixtureSpec audioOnly(testing::Container c) {
  FixtureSpec s;
  s.container = c;
  s.audioOnly = true;
  return s;
}

QString line(const char* prefix, const fs::path& file) {
  return QString::fromUtf8(prefix) + QString::fromStdString(file.filename().string());
}

// Every way of opening a file ends in a LoadedVideo or in one refusal with its one log line.
TEST_F(LoadedVideoTest, EachFileIsAcceptedOrRefusedWithItsLogLine) {
  FixtureSpec upper;
  upper.upperCaseExtension = true;
  FixtureSpec coverArt;
  coverArt.coverArtOnly = true;
  FixtureSpec truncated;
  truncated.container = testing::Container::mov;
  truncated.damage = testing::Damage::truncated;
  FixtureSpec zeroed = truncated;
  zeroed.damage = testing::Damage::zeroedHeader;
  FixtureSpec m4v;
  m4v.container = testing::Container::m4v;
  FixtureSpec mov;
  mov.container = testing::Container::mov;
  const fs::path video = testing::fixture({});

  const char* kRejected = "Rejecting unsupported file: ";
  const char* kMissing = "Supported file missing on disk: ";
  const char* kNoVideo = "Asset has no usable video: ";
  const char* kFailed = "Failed to load asset: ";
  const struct {
    const char* what;
    std::function<fs::path()> path;
    std::optional<Kind> refusal;
    std::vector<const char*> lines;  // one of these, followed by the file name; none when accepted
  } cases[] = {
      {"upper-case extension", [&] { return copyAs(testing::fixture(upper), "clip.MP4"); }, {}, {}},
      {".mov", [&] { return testing::fixture(mov); }, {}, {}},
      {".m4v", [&] { return testing::fixture(m4v); }, {}, {}},
      {"second extension .txt, not on disk",
       [&] { return m_dir / "clip.mp4.txt"; },
       Kind::unsupportedFile,
       {kRejected}},
      {"a movie named .txt", [&] { return copyAs(video, "clip.mp4.txt"); }, Kind::unsupportedFile, {kRejected}},
      {"no extension, not on disk", [&] { return m_dir / "clip"; }, Kind::unsupportedFile, {kRejected}},
      {"deleted", [&] { return m_dir / "gone.mp4"; }, Kind::fileMoved, {kMissing}},
      {"audio-only .m4v",
       [&] { return testing::fixture(audioOnly(testing::Container::m4v)); },
       Kind::unsupportedFile,
       {kNoVideo}},
      {"audio-only .mov",
       [&] { return testing::fixture(audioOnly(testing::Container::mov)); },
       Kind::unsupportedFile,
       {kNoVideo}},
      {"cover art only", [&] { return testing::fixture(coverArt); }, Kind::unsupportedFile, {kNoVideo}},
      {"truncated .mov", [&] { return testing::fixture(truncated); }, Kind::unsupportedFile, {kFailed, kNoVideo}},
      {"zeroed header .mov", [&] { return testing::fixture(zeroed); }, Kind::unsupportedFile, {kFailed, kNoVideo}},
      {"empty .mov", [&] { return write("empty.mov", ""); }, Kind::unsupportedFile, {kFailed, kNoVideo}},
      {"text named .mp4",
       [&] { return write("notes.mp4", "not a movie at all\n"); },
       Kind::unsupportedFile,
       {kFailed, kNoVideo}},
  };
  for (const auto& c : cases) {
    const fs::path path = c.path();
    LogCapture log;
    const auto result = LoadedVideo::load(path);
    const QStringList lines = log.messages("vantrix.media");
    if (!c.refusal) {
      ASSERT_TRUE(result) << c.what << ": " << toString(result.error().kind()) << " " << lines.join("; ").toStdString();
      EXPECT_EQ(result->path, path) << c.what;
      EXPECT_GT(result->asset->duration(), RationalTime::zero()) << c.what;
      EXPECT_TRUE(lines.isEmpty()) << c.what << ": " << lines.join("; ").toStdString();
      continue;
    }
    ASSERT_FALSE(result) << c.what;
    EXPECT_EQ(result.error().kind(), *c.refusal) << c.what << ": got " << toString(result.error().kind());
    ASSERT_EQ(lines.size(), 1) << c.what << ": " << lines.join("; ").toStdString();
    bool matched = false;
    for (const char* prefix : c.lines) matched = matched || lines.front() == line(prefix, path);
    EXPECT_TRUE(matched) << c.what << ": " << lines.front().toStdString();
  }
}

TEST_F(LoadedVideoTest, RealWorldFilesWithVideoOpenAndTheOthersAreRefused) {
  VANTRIX_REQUIRE_REAL_WORLD();
  const struct {
    const char* file;
    bool opens;
  } cases[] = {
      {"androidx__media/sample.mp4", true},
      {"androidx__media/pixel7_videoOnly_cleaned.mp4", true},
      {"androidx__media/sample_edit_list.mp4", true},
      {"androidx__media/sample_fragmented.mp4", true},
      {"androidx__media/internal_emulator_transformer_output_270_rotated.mp4", true},
      {"androidx__media/iibbibb_editlist_videoonly.mp4", true},
      {"androidx__media/sowt-with-video.mov", true},
      {"androidx__media/h265_with_metadata_track.mp4", true},
      {"drewnoakes__metadata-extractor-images/with-gps.mov", true},
      {"drewnoakes__metadata-extractor-images/sample_mpeg4.mp4", true},
      {"Vanilagy__mediabunny/cursed-vfr.mp4", true},
      {"mozilla__mp4parse-rust/video_rotation_90.mp4", true},
      {"slhck__ffmpeg-normalize/test.mp4", true},
      {"sindresorhus__file-type/fixture.m4v", true},
      {"androidx__media/sample_audio_only.mp4", false},
      {"Vanilagy__mediabunny/multiple-aac-tracks.mp4", false},
      {"androidx__media/sample_malformed_free_box.mp4", false},
      {"mozilla__mp4parse-rust/bipbop_nonfragment_header.mp4", false},
  };
  for (const auto& c : cases) {
    const auto result = LoadedVideo::load(testing::realWorldFile(c.file));
    EXPECT_EQ(result.has_value(), c.opens) << c.file;
    if (!result) {
      EXPECT_EQ(result.error(), AppError::unsupportedFile()) << c.file;
    }
  }
}

// Cut anywhere, a file is refused cleanly. Files whose index comes first still promise the
// packets that were cut off; files whose index comes last lose it.
TEST_F(LoadedVideoTest, FilesCutShortAreRefused) {
  VANTRIX_REQUIRE_REAL_WORLD();
  const char* files[] = {"androidx__media/sample.mp4", "androidx__media/sample_edit_list.mp4",
                         "drewnoakes__metadata-extractor-images/sample_mpeg4.mp4",
                         "androidx__media/sowt-with-video.mov"};
  for (const char* file : files) {
    const fs::path source = testing::realWorldFile(file);
    const std::uintmax_t size = fs::file_size(source);
    for (const int percent : {1, 10, 25, 50, 75, 95}) {
      const fs::path cut = copyAs(source, "cut" + source.extension().string(), size * percent / 100);
      LogCapture log;
      const auto result = LoadedVideo::load(cut);
      ASSERT_FALSE(result) << file << " cut to " << percent << "%";
      EXPECT_EQ(result.error(), AppError::unsupportedFile());
      EXPECT_EQ(log.messages("vantrix.media").size(), 1) << file << " cut to " << percent << "%";
    }
  }
}

TEST_F(LoadedVideoTest, EachLoadGetsItsOwnId) {
  const fs::path file = testing::fixture({});
  const auto first = LoadedVideo::load(file);
  const auto second = LoadedVideo::load(file);
  ASSERT_TRUE(first && second);
  EXPECT_NE(first->id, second->id);
  EXPECT_NE(first->asset, second->asset) << "each load probes the file itself";
  EXPECT_EQ(first->asset->duration(), second->asset->duration());
}

// A file that arrives slowly (a pipe fed a little at a time) keeps the open waiting; stopping the
// load must end it before the rest of the file arrives.
TEST_F(LoadedVideoTest, StoppingASlowOpenEndsItPromptly) {
  const fs::path source = testing::fixture({});
  std::string bytes;
  {
    std::ifstream in(source, std::ios::binary);
    bytes.assign(std::istreambuf_iterator<char>(in), {});
  }
  const fs::path pipe = m_dir / "slow.mp4";
  ASSERT_EQ(::mkfifo(pipe.c_str(), 0600), 0);
  const auto previous = std::signal(SIGPIPE, SIG_IGN);  // the reader leaves early on purpose

  std::atomic<std::size_t> written{0};
  std::atomic<bool> quit{false};
  std::thread writer([&] {
    const int fd = ::open(pipe.c_str(), O_WRONLY);
    if (fd < 0) return;
    constexpr std::size_t kChunk = 256;
    while (!quit && written < bytes.size()) {
      const std::size_t n = std::min(kChunk, bytes.size() - written);
      if (::write(fd, bytes.data() + written, n) <= 0) break;
      written += n;
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    ::close(fd);
  });

  std::stop_source stop;
  std::expected<LoadedVideo, AppError> result = std::unexpected(AppError::fileMoved());
  std::size_t writtenWhenReturned = 0;
  std::thread loader([&] {
    result = LoadedVideo::load(pipe, stop.get_token());
    writtenWhenReturned = written;
  });
  while (written < 8 * 256) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  stop.request_stop();
  loader.join();
  quit = true;
  writer.join();
  std::signal(SIGPIPE, previous);

  EXPECT_FALSE(result);
  EXPECT_LT(writtenWhenReturned, bytes.size()) << "the load waited for the whole file";
}

}  // namespace
}  // namespace vantrix
