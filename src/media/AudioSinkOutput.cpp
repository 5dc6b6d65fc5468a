#include "media/AudioSinkOutput.h"

#include "media/CompositionReader.h"
#include "media/MediaLog.h"

#include <QAudioSink>
#include <QIODevice>
#include <QMediaDevices>
#include <QThread>

#include <atomic>

namespace vantrix {
namespace {

// The sink's source: every read is answered in full from the feed, so the device never sees an
// end of data. Lives on the output thread.
class FeedDevice final : public QIODevice {
 public:
  FeedDevice(std::shared_ptr<AudioFeed> feed, QObject* parent) : QIODevice(parent), m_feed(std::move(feed)) {}

  // How far ahead of the speaker a pulled sample is: what the sink buffers.
  std::atomic<std::int64_t> latencyNanos{0};

  bool isSequential() const override { return true; }
  qint64 bytesAvailable() const override { return 1 << 20; }

 protected:
  qint64 readData(char* data, qint64 maxSize) override {
    const qint64 frameBytes = static_cast<qint64>(sizeof(float)) * m_feed->channels();
    const auto frames = static_cast<int>(maxSize / frameBytes);
    if (frames <= 0) return 0;
    m_feed->pull(reinterpret_cast<float*>(data), frames, std::chrono::nanoseconds(latencyNanos.load()));
    return frames * frameBytes;
  }
  qint64 writeData(const char*, qint64) override { return -1; }

 private:
  std::shared_ptr<AudioFeed> m_feed;
};

}  // namespace

AudioSinkOutput::AudioSinkOutput(QAudioDevice device, int channels) : m_device(std::move(device)), m_channels(channels) {}

AudioSinkOutput::~AudioSinkOutput() { stop(); }

QAudioFormat AudioSinkOutput::format(int channels) {
  QAudioFormat f;
  f.setSampleRate(CompositionReader::kSampleRate);
  f.setChannelCount(channels);
  f.setSampleFormat(QAudioFormat::Float);
  return f;
}

void AudioSinkOutput::start(std::shared_ptr<AudioFeed> feed) {
  stop();
  m_thread = new QThread;
  m_thread->setObjectName(QStringLiteral("vantrix audio"));
  // The sink and its device are made, used and destroyed on the output thread, under `context`.
  auto* context = new QObject;
  context->moveToThread(m_thread);
  QObject::connect(m_thread, &QThread::finished, context, [context] { delete context; });
  m_thread->start(QThread::TimeCriticalPriority);
  QMetaObject::invokeMethod(
      context,
      [context, device = m_device, fmt = format(m_channels), feed = std::move(feed)] {
        auto* sink = new QAudioSink(device, fmt, context);
        auto* source = new FeedDevice(feed, sink);
        QObject::connect(context, &QObject::destroyed, [sink] { sink->stop(); });
        source->open(QIODevice::ReadOnly);
        sink->start(source);
        const qint64 bytesPerSecond = fmt.bytesForDuration(1'000'000);
        if (bytesPerSecond > 0)
          source->latencyNanos = sink->bufferSize() * 1'000'000'000LL / bytesPerSecond;
        if (sink->error() != QAudio::NoError) qCInfo(lcMedia, "Sound device refused playback; continuing silently");
      },
      Qt::QueuedConnection);
}

void AudioSinkOutput::stop() {
  if (m_thread == nullptr) return;
  m_thread->quit();
  m_thread->wait();
  delete m_thread;
  m_thread = nullptr;
}

std::unique_ptr<AudioOutput> makeDefaultAudioOutput() {
  const QAudioDevice device = QMediaDevices::defaultAudioOutput();
  constexpr int kChannels = 2;
  if (device.isNull()) {
    qCInfo(lcMedia, "No sound device; playback is silent");
    return std::make_unique<NullAudioOutput>();
  }
  if (!device.isFormatSupported(AudioSinkOutput::format(kChannels))) {
    qCInfo(lcMedia, "Sound device cannot play 48 kHz stereo float; playback is silent");
    return std::make_unique<NullAudioOutput>();
  }
  return std::make_unique<AudioSinkOutput>(device, kChannels);
}

}  // namespace vantrix
