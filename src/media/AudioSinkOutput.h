#pragma once

#include "media/AudioOutput.h"

#include <QAudioDevice>

#include <memory>

class QThread;

namespace vantrix {

// Plays a player's sound on a sound device through QAudioSink in pull mode, on a thread of its
// own so that a busy GUI thread never starves the device. The sink asks for data as it needs
// it and gets whatever the feed has due, silence included, so it never runs dry.
//
// Created, started and stopped on the player's (GUI) thread.
class AudioSinkOutput final : public AudioOutput {
 public:
  // The device must accept 48 kHz, 32-bit float, `channels` channels (see format()).
  AudioSinkOutput(QAudioDevice device, int channels);
  ~AudioSinkOutput() override;

  static QAudioFormat format(int channels);

  bool playsSound() const override { return true; }
  void start(std::shared_ptr<AudioFeed> feed) override;
  void stop() override;

 private:
  QAudioDevice m_device;
  int m_channels;
  QThread* m_thread = nullptr;
};

}  // namespace vantrix
