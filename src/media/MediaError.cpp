#include "media/MediaError.h"

extern "C" {
#include <libavutil/error.h>
}

#include <cerrno>
#include <system_error>
#include <utility>

namespace vantrix {
namespace {

std::string_view codeName(MediaError::Code code) {
  switch (code) {
    case MediaError::Code::cancelled:
      return "cancelled";
    case MediaError::Code::noUsableVideo:
      return "no usable video";
    case MediaError::Code::damagedMedia:
      return "damaged media";
    case MediaError::Code::noDecoder:
      return "no decoder";
    case MediaError::Code::internal:
      return "internal error";
    case MediaError::Code::exportUnavailable:
      return "export unavailable";
    case MediaError::Code::sourceMissing:
      return "source missing";
    case MediaError::Code::sourceChanged:
      return "source changed";
  }
  return "unknown";
}

std::string codeText(MediaError::Domain domain, int code) {
  switch (domain) {
    case MediaError::Domain::posix:
      return "posix " + std::to_string(code) + ": " + std::generic_category().message(code);
    case MediaError::Domain::ffmpeg: {
      char text[AV_ERROR_MAX_STRING_SIZE] = {};
      av_strerror(code, text, sizeof text);
      return "ffmpeg " + std::to_string(code) + ": " + text;
    }
    case MediaError::Domain::vantrix:
      return std::string(codeName(static_cast<MediaError::Code>(code)));
  }
  return {};
}

}  // namespace

MediaError MediaError::posix(int errnoValue, std::string context) {
  return {Domain::posix, errnoValue, std::move(context)};
}

MediaError MediaError::ffmpeg(int averror, std::string context) {
  return {Domain::ffmpeg, averror, std::move(context)};
}

MediaError MediaError::own(Code code, std::string context) {
  return {Domain::vantrix, static_cast<int>(code), std::move(context)};
}

MediaError MediaError::causedBy(MediaError cause) && {
  m_causes.push_back(std::move(cause));
  return std::move(*this);
}

MediaError MediaError::causedBy(MediaError cause) const& {
  MediaError copy = *this;
  return std::move(copy).causedBy(std::move(cause));
}

bool MediaError::isOutOfDiskSpace() const {
  if (m_domain == Domain::posix && m_code == ENOSPC) return true;
  if (m_domain == Domain::ffmpeg && m_code == AVERROR(ENOSPC)) return true;
  for (const MediaError& cause : m_causes)
    if (cause.isOutOfDiskSpace()) return true;
  return false;
}

std::string MediaError::description() const {
  std::string text = m_message + " (" + codeText(m_domain, m_code) + ")";
  for (std::size_t i = 0; i < m_causes.size(); ++i)
    text += (i == 0 ? ", caused by: " : "; ") + m_causes[i].description();
  return text;
}

}  // namespace vantrix
