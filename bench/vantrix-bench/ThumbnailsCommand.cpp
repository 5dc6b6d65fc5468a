// vantrix-bench thumbnails SOURCE --count N --height PX [--save DIR]: the filmstrip for N slots at
// the editor's sample times, at PX pixels high. wall_s runs from the start of the load until the
// last thumbnail arrives; thumbnails_s counts the thumbnails alone. --save writes each image as
// DIR/INDEX.png after the clock has stopped, for looking at them.

#include "BenchSupport.h"
#include "Commands.h"

#include "media/LoadedVideo.h"
#include "media/ThumbnailGenerator.h"
#include "model/TimelineGeometry.h"

#include <QDir>

namespace vantrix::bench {

int runThumbnails(std::span<const std::string_view> args) {
  constexpr std::string_view kUsage = "usage: vantrix-bench thumbnails SOURCE --count N --height PX [--save DIR]";
  const auto parsed = Arguments::parse(args, {{"--count", 1}, {"--height", 1}, {"--save", 1}});
  if (!parsed || parsed->positional().size() != 1) return usageError(kUsage);
  const auto count = parseCount(parsed->value("--count").value_or(""));
  const auto height = parseCount(parsed->value("--height").value_or(""));
  if (!count || !height || *count > 10000 || *height > 10000) return usageError(kUsage);
  const std::filesystem::path source{std::string(parsed->positional().front())};

  const Stopwatch clock;
  const auto video = LoadedVideo::load(source);
  if (!video) return fail(video.error());
  const Stopwatch thumbnailClock;
  const auto times = TimelineGeometry::sampleTimes(static_cast<int>(*count), video->asset->duration());
  std::vector<ThumbnailGenerator::Thumbnail> images;
  const auto summary = ThumbnailGenerator(video->asset)
                           .generate(times, static_cast<double>(*height), 1.0, {},
                                     [&](ThumbnailGenerator::Thumbnail&& t) { images.push_back(std::move(t)); });
  const double thumbnailSeconds = thumbnailClock.seconds();
  const double wallSeconds = clock.seconds();

  if (const auto dir = parsed->value("--save")) {
    const QString folder = QString::fromUtf8(dir->data(), static_cast<qsizetype>(dir->size()));
    QDir().mkpath(folder);
    for (const auto& t : images) t.image.save(QDir(folder).filePath(QString::number(t.index) + ".png"));
  }

  nlohmann::ordered_json result;
  result["wall_s"] = wallSeconds;
  result["thumbnails_s"] = thumbnailSeconds;
  result["delivered"] = summary.delivered;
  result["requested"] = *count;
  result["frames_decoded"] = summary.framesDecoded;
  if (!images.empty())
    result["image_size"] =
        std::to_string(images.front().image.width()) + "x" + std::to_string(images.front().image.height());
  return succeed(result);
}

}  // namespace vantrix::bench
