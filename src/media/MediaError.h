#pragma once

#include <string>
#include <vector>

namespace vantrix {

// A failure below the editing model: where it came from (an errno value, an FFmpeg AVERROR code,
// or one of our own codes), a short message saying what was being done, and the failures that
// caused it, outermost first. Recognising a cause such as a full disk therefore works however
// deeply it is wrapped.
//
// A plain value; thread-safe to copy and read.
class MediaError {
 public:
  enum class Domain { posix, ffmpeg, vantrix };

  // Codes of the vantrix domain.
  enum class Code {
    cancelled = 1,      // the caller's stop token was triggered
    noUsableVideo,      // no decodable video stream with at least one frame
    damagedMedia,       // the container promises media that cannot be read
    noDecoder,          // no decoder for a stream's codec
    internal,           // an FFmpeg call failed in a way the caller cannot act on
    exportUnavailable,  // no encoder or muxer could be set up for an export
    sourceMissing,      // the source file disappeared while it was being read
    sourceChanged,      // another file, or other content, is now at the source's path
  };

  // `errnoValue` is a positive errno (ENOSPC); `averror` a negative AVERROR (AVERROR(ENOSPC),
  // AVERROR_INVALIDDATA). `context` says what was being attempted ("Opening clip.mp4").
  static MediaError posix(int errnoValue, std::string context);
  static MediaError ffmpeg(int averror, std::string context);
  static MediaError own(Code code, std::string context);

  // This error with `cause` appended to its causes.
  MediaError causedBy(MediaError cause) &&;
  MediaError causedBy(MediaError cause) const&;

  Domain domain() const { return m_domain; }
  int code() const { return m_code; }
  const std::string& message() const { return m_message; }
  const std::vector<MediaError>& causes() const { return m_causes; }

  bool is(Code code) const { return m_domain == Domain::vantrix && m_code == static_cast<int>(code); }
  // True when this error or any cause, at any depth, is "no space left on device" (POSIX ENOSPC,
  // or FFmpeg's AVERROR(ENOSPC)).
  bool isOutOfDiskSpace() const;

  // One line for logs: the message, the system's text for the code, then the causes,
  // e.g. "Writing out.mp4 (ffmpeg -28: No space left on device)".
  std::string description() const;

  friend bool operator==(const MediaError&, const MediaError&) = default;

 private:
  MediaError(Domain domain, int code, std::string message)
      : m_domain(domain), m_code(code), m_message(std::move(message)) {}

  Domain m_domain;
  int m_code;
  std::string m_message;
  std::vector<MediaError> m_causes;
};

}  // namespace vantrix
