#include "media/LoadedVideo.h"

#include "LogCapture.h"
#include "MediaTestSupport.h"

#include <gtest/gtest.h>

#include <QTemporaryDir>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <fstream>
#include <thread>

namespace vantrix {
namespace {

namespace fs = std::filesystem;
using namespace testing;

class LoadedVideoTest : public ::testing::Test {
 protected:
  fs::path in(const std::string& name) const { return fs::path(m_dir.path().toStdString()) / name; }
  fs::path copyAs(const fs::path& source, const std::string& name, std::uintmax_t keepBytes = UINTMAX_MAX) const {
    fs::copy_file(source, in(name), fs::copy_options::overwrite_existing);
    if (keepBytes < fs::file_size(in(name))) fs::resize_file(in(name), keepBytes);
    return in(name);
  }
  fs::path write(const std::string& name, const std::string& bytes) const {
    std::ofstream(in(name), std::ios::binary) << bytes;
    return in(name);
  }

  QTemporaryDir m_dir;
};

// Every way of opening a file ends in a LoadedVideo or in one refusal with its one log line.
TEST_F(LoadedVideoTest, EachFileIsAcceptedOrRefusedWithItsLogLine) {
  const std::vector<const char*> kRejected{"Rejecting unsupported file: "}, kNoVideo{"Asset has no usable video: "},
      kDamaged{"Failed to load asset: ", "Asset has no usable video: "};
  const std::optional kUnsupported = AppError::unsupportedFile();
  const struct {
    const char* what;
    fs::path path;
    std::optional<AppError> refusal;
    std::vector<const char*> lines;  // one of these, followed by the file name; none when accepted
  } cases[] = {
      {"upper-case extension", copyAs(fixture({.upperCaseExtension = true}), "clip.MP4"), {}, {}},
      {".mov", fixture({.container = Container::mov}), {}, {}},
      {".m4v", fixture({.container = Container::m4v}), {}, {}},
      // Refused by name alone: were the disk asked, these would be missing files.
      {"second extension .txt", in("clip.mp4.txt"), kUnsupported, kRejected},
      {"no extension", in("clip"), kUnsupported, kRejected},
      {"deleted", in("gone.mp4"), AppError::fileMoved(), {"Supported file missing on disk: "}},
      {"audio-only .m4v", fixture({.container = Container::m4v, .audioOnly = true}), kUnsupported, kNoVideo},
      {"audio-only .mov", fixture({.container = Container::mov, .audioOnly = true}), kUnsupported, kNoVideo},
      {"cover art only", fixture({.coverArtOnly = true}), kUnsupported, kNoVideo},
      {"truncated", fixture({.container = Container::mov, .damage = Damage::truncated}), kUnsupported, kDamaged},
      {"zeroed header", fixture({.container = Container::mov, .damage = Damage::zeroedHeader}), kUnsupported, kDamaged},
      {"empty", write("empty.mov", ""), kUnsupported, kDamaged},
      {"text named .mp4", write("notes.mp4", "not a movie\n"), kUnsupported, kDamaged},
  };
  for (const auto& c : cases) {
    LogCapture log;
    const auto result = LoadedVideo::load(c.path);
    const QStringList lines = log.messages("vantrix.media");
    EXPECT_EQ(refusal(result), c.refusal) << c.what;
    EXPECT_EQ(result ? result->path : c.path, c.path) << c.what << ": the path as given";
    ASSERT_EQ(lines.size(), c.lines.empty() ? 0 : 1) << c.what << ": " << lines.join("; ").toStdString();
    const QString name = QString::fromStdString(c.path.filename().string());
    for (const QString& line : lines) {
      EXPECT_TRUE(std::ranges::any_of(c.lines, [&](const char* prefix) { return line == prefix + name; }))
          << c.what << ": " << line.toStdString();
    }
  }
}

// Every sample file with decodable video opens, its duration exactly the span of its frames; the
// others are refused.
TEST_F(LoadedVideoTest, RealWorldFilesOpenWithTheSpanOfTheirFramesOrAreRefused) {
  if (!haveRealWorld()) GTEST_SKIP() << "no real-world media folder";
  int withVideo = 0, refused = 0;
  for (const auto& entry : fs::recursive_directory_iterator(realWorldFile())) {
    const auto ext = entry.path().extension();
    if (ext != ".mp4" && ext != ".mov" && ext != ".m4v") continue;
    const auto frames = readFrames(entry.path());
    const auto result = LoadedVideo::load(entry.path());
    if (frames.empty()) {
      ++refused;
      EXPECT_EQ(refusal(result), AppError::unsupportedFile()) << entry.path();
      continue;
    }
    ++withVideo;
    ASSERT_TRUE(result) << entry.path();
    EXPECT_EQ(result->asset->duration(), frameSpan(frames)) << entry.path();
  }
  EXPECT_GE(withVideo, 14);
  EXPECT_GE(refused, 4);
}

// Cut anywhere, a file is refused cleanly with one line. Files whose index comes first still
// promise the packets that were cut off; files whose index comes last lose it.
TEST_F(LoadedVideoTest, FilesCutShortAreRefused) {
  if (!haveRealWorld()) GTEST_SKIP() << "no real-world media folder";
  for (const char* file :
       {"androidx__media/sample.mp4", "androidx__media/sample_edit_list.mp4",
        "drewnoakes__metadata-extractor-images/sample_mpeg4.mp4", "androidx__media/sowt-with-video.mov"}) {
    const fs::path source = realWorldFile(file);
    for (const int percent : {1, 10, 25, 50, 75, 95}) {
      LogCapture log;
      const auto result =
          LoadedVideo::load(copyAs(source, "cut" + source.extension().string(), fs::file_size(source) * percent / 100));
      EXPECT_EQ(refusal(result), AppError::unsupportedFile()) << file << " cut to " << percent << "%";
      EXPECT_EQ(log.messages("vantrix.media").size(), 1) << file << " cut to " << percent << "%";
    }
  }
}

TEST_F(LoadedVideoTest, EachLoadGetsItsOwnId) {
  const auto first = LoadedVideo::load(fixture({}));
  const auto second = LoadedVideo::load(fixture({}));
  ASSERT_TRUE(first && second);
  EXPECT_NE(first->id, second->id);
}

// A file that arrives slowly (a pipe fed a little at a time) keeps the open waiting; stopping the
// load must end it before the rest of the file arrives.
TEST_F(LoadedVideoTest, StoppingASlowOpenEndsItPromptly) {
  std::ifstream source(fixture({}), std::ios::binary);
  const std::string bytes(std::istreambuf_iterator<char>(source), {});
  const fs::path pipe = in("slow.mp4");
  ASSERT_EQ(::mkfifo(pipe.c_str(), 0600), 0);
  const auto previous = std::signal(SIGPIPE, SIG_IGN);  // the reader leaves early on purpose

  constexpr std::size_t kChunk = 256;
  std::atomic<std::size_t> written{0};
  std::atomic<bool> quit{false};
  std::thread writer([&] {
    const int fd = ::open(pipe.c_str(), O_WRONLY);
    while (fd >= 0 && !quit && written < bytes.size()) {
      const std::size_t n = std::min(kChunk, bytes.size() - written);
      if (::write(fd, bytes.data() + written, n) <= 0) break;
      written += n;
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    if (fd >= 0) ::close(fd);
  });
  std::stop_source stop;
  std::expected<LoadedVideo, AppError> result = std::unexpected(AppError::fileMoved());
  std::size_t writtenWhenReturned = 0;
  std::thread loader([&] {
    result = LoadedVideo::load(pipe, stop.get_token());
    writtenWhenReturned = written;
  });
  while (written < 8 * kChunk) std::this_thread::sleep_for(std::chrono::milliseconds(1));
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
