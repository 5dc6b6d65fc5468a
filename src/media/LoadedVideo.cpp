#include "media/LoadedVideo.h"

#include "media/CompositionBuilder.h"
#include "media/MediaLog.h"

#include <QThread>

#include <algorithm>
#include <array>
#include <cctype>
#include <string>
#include <system_error>

namespace vantrix {
namespace {

constexpr std::array<std::string_view, 3> kSupportedExtensions{"mov", "mp4", "m4v"};

std::string lowerAscii(std::string text) {
  std::ranges::transform(text, text.begin(), [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return text;
}

}  // namespace

std::span<const std::string_view> supportedExtensions() { return kSupportedExtensions; }

bool hasSupportedExtension(const std::filesystem::path& path) {
  const std::string extension = path.extension().string();  // ".MP4", or empty
  if (extension.size() < 2) return false;
  return std::ranges::find(kSupportedExtensions, lowerAscii(extension.substr(1))) != kSupportedExtensions.end();
}

std::expected<LoadedVideo, AppError> LoadedVideo::load(const std::filesystem::path& path, std::stop_token stop) {
  const std::string name = path.filename().string();
  if (!hasSupportedExtension(path)) {
    qCInfo(lcMedia, "Rejecting unsupported file: %s", name.c_str());
    return std::unexpected(AppError::unsupportedFile());
  }
  std::error_code ec;
  if (!std::filesystem::exists(path, ec)) {
    qCInfo(lcMedia, "Supported file missing on disk: %s", name.c_str());
    return std::unexpected(AppError::fileMoved());
  }

  auto asset = MediaAsset::open(path, stop);
  if (stop.stop_requested() || (!asset && asset.error().is(MediaError::Code::cancelled)))
    return std::unexpected(AppError::unsupportedFile());
  if (!asset) {
    qCInfo(lcMedia, "Failed to load asset: %s", name.c_str());
    return std::unexpected(AppError::unsupportedFile());
  }
  if (!(*asset)->video()) {
    qCInfo(lcMedia, "Asset has no usable video: %s", name.c_str());
    return std::unexpected(AppError::unsupportedFile());
  }
  return LoadedVideo{Uuid::random(), path, std::move(*asset), nullptr};
}

std::expected<void, AppError> LoadedVideo::attachPlayer(Player::Options options) {
  auto passThrough = CompositionBuilder::build(SpeedTimeline(asset->duration()), asset);
  if (!passThrough) return std::unexpected(passThrough.error());
  // A QObject must be deleted on its own thread: a last copy dropped elsewhere defers it there.
  player = std::shared_ptr<Player>(new Player(std::move(*passThrough), std::move(options)), [](Player* p) {
    if (p->thread() == QThread::currentThread())
      delete p;
    else
      p->deleteLater();
  });
  return {};
}

}  // namespace vantrix
