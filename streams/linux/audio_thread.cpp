#include "capture/linux/thread_nice.h"
#include "streams/audio_source.h"

AudioThreadPriority::AudioThreadPriority() : former_(change_thread_nice(STREAMING_NICE)) {}

AudioThreadPriority::~AudioThreadPriority() {
  change_thread_nice(static_cast<int>(former_));
}
