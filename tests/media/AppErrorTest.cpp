#include "media/AppError.h"

#include <gtest/gtest.h>

extern "C" {
#include <libavutil/error.h>
}

#include <cerrno>

namespace vantrix {
namespace {

TEST(AppError, DescriptionsAreTheAlertTexts) {
  const struct {
    AppError error;
    std::string_view text;
  } cases[] = {
      {AppError::exportFailed(MediaError::posix(EIO, "Writing")), "The export didn't finish. Try exporting again."},
      {AppError::unsupportedFile(), "This file's format isn't supported. Vantrix opens .mov, .mp4, and .m4v."},
      {AppError::compositionFailed(), "Vantrix couldn't prepare this video. Try opening it again."},
      {AppError::diskFull(), "There isn't enough disk space to export. Free up space and try again."},
      {AppError::fileMoved(),
       "Vantrix can't find this file. It may have been moved or deleted. Open it again from its current location."},
  };
  for (const auto& c : cases) EXPECT_EQ(c.error.description(), c.text) << toString(c.error.kind());
}

TEST(AppError, EqualityComparesTheCaseOnly) {
  const AppError b = AppError::exportFailed(MediaError::ffmpeg(AVERROR_INVALIDDATA, "Muxing b"));
  EXPECT_EQ(AppError::exportFailed(MediaError::posix(EIO, "Writing a")), b);
  EXPECT_NE(AppError::diskFull(), AppError::fileMoved());
  ASSERT_NE(b.underlying(), nullptr);
  EXPECT_EQ(b.underlying()->code(), AVERROR_INVALIDDATA) << "the cause travels with the error";
}

TEST(MediaError, OutOfDiskSpaceIsFoundAtAnyDepth) {
  const MediaError enospc = MediaError::posix(ENOSPC, "Writing the file");
  const MediaError avEnospc = MediaError::ffmpeg(AVERROR(ENOSPC), "Writing a packet");
  const MediaError io = MediaError::posix(EIO, "Writing the file");
  const MediaError wrapper = MediaError::own(MediaError::Code::internal, "Exporting");
  const struct {
    const char* what;
    MediaError error;
    bool full;
  } cases[] = {
      {"POSIX ENOSPC", enospc, true},
      {"FFmpeg AVERROR(ENOSPC)", avEnospc, true},
      {"another POSIX error", io, false},
      {"28 in our own domain is not errno", MediaError::own(static_cast<MediaError::Code>(ENOSPC), "x"), false},
      {"positive 28 is not an AVERROR", MediaError::ffmpeg(ENOSPC, "x"), false},
      {"one level down", wrapper.causedBy(enospc), true},
      {"two levels down, second cause", wrapper.causedBy(io).causedBy(wrapper.causedBy(io).causedBy(avEnospc)), true},
      {"causes without it", wrapper.causedBy(io).causedBy(wrapper.causedBy(io)), false},
  };
  for (const auto& c : cases) EXPECT_EQ(c.error.isOutOfDiskSpace(), c.full) << c.what;
}

}  // namespace
}  // namespace vantrix
