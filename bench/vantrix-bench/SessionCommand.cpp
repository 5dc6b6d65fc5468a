// vantrix-bench session SOURCE [--trim START END] [--segment START END SPEED]...: saves the session
// of SOURCE with that edit exactly as the editor does after an edit (bookmark, fingerprint, the
// store in $XDG_DATA_HOME/Vantrix) and prints the session file's path.

#include "BenchSupport.h"
#include "Commands.h"
#include "TimelineArguments.h"

#include "media/LoadedVideo.h"
#include "persistence/Bookmark.h"
#include "persistence/SessionStore.h"

#include <QFileInfo>

namespace vantrix::bench {

int runSession(std::span<const std::string_view> args) {
  const auto parsed = Arguments::parse(args, kTimelineOptions);
  if (!parsed || parsed->positional().size() != 1)
    return usageError("usage: vantrix-bench session SOURCE [--trim START END] [--segment START END SPEED]...");
  const std::filesystem::path source{std::string(parsed->positional()[0])};
  const auto video = LoadedVideo::load(source);
  if (!video) return fail(video.error());
  const auto timeline = timelineFromArguments(*parsed, video->asset->duration());
  if (!timeline) return usageError(timeline.error());

  const QString path = QFileInfo(QString::fromStdString(source.string())).absoluteFilePath();
  const auto session = makeSession(makeBookmark(path), path, *timeline);
  if (!session) return fail(AppError::fileMoved());
  const SessionStore store;
  store.save(*session);
  const QString file = store.sessionFilePath(path);
  if (!QFileInfo::exists(file)) return usageError("the session could not be written to " + file.toStdString());

  nlohmann::ordered_json result;
  result["path"] = file.toStdString();
  return succeed(result);
}

}  // namespace vantrix::bench
