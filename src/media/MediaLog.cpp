#include "media/MediaLog.h"

extern "C" {
#include <libavutil/log.h>
}

#include <cstdarg>

Q_LOGGING_CATEGORY(lcMedia, "vantrix.media")
Q_LOGGING_CATEGORY(lcFfmpeg, "vantrix.media.ffmpeg", QtInfoMsg)

namespace {

// FFmpeg's own diagnostics ("moov atom not found" from a probe that was stopped, encoder
// statistics) go to the "vantrix.media.ffmpeg" category at debug level instead of straight to
// stderr: the editor reports failures through its own errors and log lines, and these are for
// diagnosis only (QT_LOGGING_RULES="vantrix.media.ffmpeg.debug=true").
void forward(void* context, int level, const char* format, va_list arguments) {
  if (level > AV_LOG_INFO) return;
  char line[1024];
  int prefix = 1;
  av_log_format_line2(context, level, format, arguments, line, sizeof line, &prefix);
  qCDebug(lcFfmpeg, "%s", line);
}

const bool kInstalled = [] {
  av_log_set_callback(&forward);
  return true;
}();

}  // namespace
