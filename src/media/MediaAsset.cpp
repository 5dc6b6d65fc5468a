#include "media/MediaAsset.h"

#include "media/TimeMath.h"

#include <sys/stat.h>

namespace vantrix {

using timemath::mul;
using timemath::narrow;
using timemath::roundDiv;

std::optional<FileIdentity> FileIdentity::of(const std::filesystem::path& path) {
  struct stat st {};
  if (::stat(path.c_str(), &st) != 0) return std::nullopt;
  return FileIdentity{static_cast<std::uint64_t>(st.st_dev), static_cast<std::uint64_t>(st.st_ino),
                      static_cast<std::int64_t>(st.st_size), static_cast<std::int64_t>(st.st_mtim.tv_sec),
                      static_cast<std::int64_t>(st.st_mtim.tv_nsec)};
}

MediaAsset::MediaAsset(std::filesystem::path path, std::optional<VideoTrack> video, std::optional<AudioTrack> audio,
                       std::optional<FileIdentity> identity)
    : m_path(std::move(path)), m_video(std::move(video)), m_audio(std::move(audio)), m_identity(identity) {}

std::expected<void, MediaError> MediaAsset::checkUnchanged() const {
  if (!m_identity) return {};
  const std::string name = m_path.filename().string();
  const auto now = FileIdentity::of(m_path);
  if (!now)
    return std::unexpected(MediaError::own(MediaError::Code::sourceMissing, name + " was moved or deleted"));
  if (*now != *m_identity)
    return std::unexpected(
        MediaError::own(MediaError::Code::sourceChanged, name + " was replaced or changed since it was opened"));
  return {};
}

RationalTime MediaAsset::duration() const { return m_video ? m_video->duration : RationalTime::zero(); }

RationalTime MediaAsset::origin() const {
  if (!m_video) return RationalTime::zero();
  return {narrow(mul(m_video->firstTimestamp, m_video->timeBase.num)), m_video->timeBase.den};
}

std::int64_t MediaAsset::timestampForSourceTime(RationalTime t, AVRational timeBase) const {
  // (t + origin) seconds * den / num ticks, in one rounding.
  const RationalTime o = origin();
  const auto seconds = mul(t.value(), o.timescale()) + mul(o.value(), t.timescale());
  const auto numerator = mul(seconds, timeBase.den);
  const auto denominator = mul(mul(t.timescale(), o.timescale()), timeBase.num);
  return narrow(roundDiv(numerator, denominator));
}

RationalTime MediaAsset::sourceTimeForTimestamp(std::int64_t timestamp, AVRational timeBase) const {
  return RationalTime(narrow(mul(timestamp, timeBase.num)), timeBase.den) - origin();
}

std::optional<std::int64_t> MediaAsset::sampleIndexForTimestamp(std::int64_t timestamp, AVRational timeBase,
                                                                 int rate) const {
  constexpr double kReachSeconds = 3600;
  if (timeBase.num <= 0 || timeBase.den <= 0 || rate <= 0) return std::nullopt;
  // A coarse look first: past it every product below stays far inside 128 bits, since the
  // probe admits only videos whose times lie within 2^62 / (90000 x 16) ticks of their timescale.
  const RationalTime o = origin();
  const double seconds = static_cast<double>(timestamp) * timeBase.num / timeBase.den - o.seconds();
  if (!(seconds >= -kReachSeconds && seconds <= duration().seconds() + kReachSeconds)) return std::nullopt;
  // (timestamp x num / den - o) x rate, in one rounding.
  const auto numerator = mul(mul(timestamp, timeBase.num), o.timescale()) - mul(o.value(), timeBase.den);
  return narrow(roundDiv(mul(numerator, rate), mul(timeBase.den, o.timescale())));
}

}  // namespace vantrix
