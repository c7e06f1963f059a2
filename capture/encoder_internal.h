// The encoder's decisions that need no open encoder.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string_view>
#include <vector>

#include "capture/ffmpeg_objects.h"

namespace encoder_internal {

enum class FramePath { ZeroCopy, ReadBack, Cpu };

struct Option {
  const char* key;
  const char* value;
};

// Private options that make an encoder of this family deliver at once. Empty for an unknown family.
std::span<const Option> family_options(std::string_view name);

// Whether an open encoder of this name takes a new rate from its context at the next frame.
bool takes_rate_in_place(std::string_view name);

int gop_size(std::string_view name);
std::int64_t vbv_bits(int bitrate_kbps, int fps);  // one frame's worth

// Which way the pixels go. `formats` is what the encoder lists, null if it gives no list. False: it
// takes neither the device's surfaces nor what they can be read back to.
bool choose_path(bool has_device, const AVPixelFormat* formats, int count, FramePath* path);

// Gathers what `next` delivers (avcodec_receive_packet's results) until it has nothing more. With
// nothing at all, waits up to `wait_ms` and then succeeds with `out` empty.
bool collect_packets(const std::function<int(AVPacket*)>& next, AVPacket* packet, int wait_ms,
                     std::vector<std::uint8_t>* out, bool* is_keyframe);

// What the wait for a packet is made of: first to whatever else is ready to run, then for a
// millisecond each.
void give_up_processor();
void sleep_one_ms();

struct ErrorText {
  explicit ErrorText(int error) { av_strerror(error, text, sizeof text); }
  char text[64];
};

using ffmpeg::BufferPtr;
using ffmpeg::ContextPtr;
using ffmpeg::FramePtr;
using ffmpeg::PacketPtr;
using ffmpeg::ScalerPtr;

}  // namespace encoder_internal
