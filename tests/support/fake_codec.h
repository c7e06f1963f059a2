// Encoders that a test makes up in place of FFmpeg's. Linking the object library test_fake_codec
// puts them there: finding, opening, feeding and draining an encoder is the test's, and so is the
// wait for a packet, while contexts, dictionaries, frames and their buffers stay FFmpeg's own. In
// virtual time, one thread.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "capture/ffmpeg_objects.h"

namespace fake_codec {

struct Encoder {
  AVCodecID id = AV_CODEC_ID_H264;
  std::vector<AVPixelFormat> formats;  // empty: it gives no list
  int open_result = 0;
};

struct Packet {
  std::vector<std::uint8_t> bytes;
  bool key = false;
};

// What an encoder was given when it opened.
struct Opened {
  std::string name;
  std::map<std::string, std::string> options;
  const AVCodecContext* context = nullptr;  // alive until the encoder closes
};

// A frame as it was sent. Of NV12 in memory also its rows, without what pads them.
struct Sent {
  AVPixelFormat format = AV_PIX_FMT_NONE;
  int width = 0;
  int height = 0;
  std::int64_t pts = -1;
  bool key = false;
  AVPictureType picture = AV_PICTURE_TYPE_NONE;
  AVColorPrimaries primaries = AVCOL_PRI_UNSPECIFIED;
  AVColorTransferCharacteristic transfer = AVCOL_TRC_UNSPECIFIED;
  AVColorSpace space = AVCOL_SPC_UNSPECIFIED;
  AVColorRange range = AVCOL_RANGE_UNSPECIFIED;
  AVChromaLocation chroma = AVCHROMA_LOC_UNSPECIFIED;
  const void* surface = nullptr;  // data[0] and data[1] of a frame in no memory
  std::uintptr_t slice = 0;
  std::vector<std::uint8_t> luma, chroma_rows;
};

struct World {
  std::map<std::string, Encoder> encoders;  // by name
  // What comes of a frame; by default a keyframe where one is forced. Nothing: it is kept.
  std::function<std::optional<Packet>(const Sent&)> encode;
  std::deque<int> send_results;     // of the next frames; 0 beyond them
  std::deque<int> receive_results;  // likewise, where they are errors
  bool holds_frames = false;        // as an encoder that works on them beside its caller

  // Seen.
  std::vector<std::string> sought;
  std::vector<Opened> opened;
  std::vector<Sent> sent;
  std::vector<ffmpeg::FramePtr> held;
  int yields = 0;  // while waiting for a packet
  int sleeps = 0;  // of a millisecond each
};

World& world();
void reset();  // nothing there, nothing seen

}  // namespace fake_codec
