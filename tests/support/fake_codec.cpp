#include "tests/support/fake_codec.h"

#include <algorithm>

#include "capture/encoder_internal.h"
#include "tests/support/fake_capture.h"
#include "tests/support/virtual_time.h"

namespace fake_codec {
namespace {

World the_world;
std::map<std::string, AVCodec> found;  // what callers hold pointers to
std::deque<Packet> ready;

std::optional<Packet> keyframe_where_forced(const Sent& frame) {
  return Packet{frame.key ? fake_capture::KEYFRAME : fake_capture::DELTA, frame.key};
}

Sent sent_of(const AVFrame& frame) {
  Sent sent;
  sent.format = static_cast<AVPixelFormat>(frame.format);
  sent.width = frame.width;
  sent.height = frame.height;
  sent.pts = frame.pts;
  sent.key = (frame.flags & AV_FRAME_FLAG_KEY) != 0;
  sent.picture = frame.pict_type;
  sent.primaries = frame.color_primaries;
  sent.transfer = frame.color_trc;
  sent.space = frame.colorspace;
  sent.range = frame.color_range;
  sent.chroma = frame.chroma_location;
  if (sent.format == AV_PIX_FMT_D3D11) {
    sent.surface = frame.data[0];
    sent.slice = reinterpret_cast<std::uintptr_t>(frame.data[1]);
  }
  if (sent.format == AV_PIX_FMT_NV12) {
    const auto rows_of = [&](int plane, int rows) {
      std::vector<std::uint8_t> bytes;
      for (int row = 0; row < rows; ++row) {
        const std::uint8_t* begin = frame.data[plane] + std::ptrdiff_t{row} * frame.linesize[plane];
        bytes.insert(bytes.end(), begin, begin + frame.width);
      }
      return bytes;
    };
    sent.luma = rows_of(0, frame.height);
    sent.chroma_rows = rows_of(1, frame.height / 2);
  }
  return sent;
}

int next_of(std::deque<int>* results) {
  if (results->empty()) return 0;
  const int result = results->front();
  results->pop_front();
  return result;
}

}  // namespace

World& world() {
  return the_world;
}

void reset() {
  the_world = World();
  the_world.encode = keyframe_where_forced;
  found.clear();
  ready.clear();
}

}  // namespace fake_codec

using namespace fake_codec;

// Ahead of the platform's, which lie in an archive.
void encoder_internal::give_up_processor() {
  ++the_world.yields;
}
void encoder_internal::sleep_one_ms() {
  ++the_world.sleeps;
  virtual_time::advance_ms(1);
}

// The linker's --wrap sends the program's calls here.
extern "C" {
AVCodecContext* __real_avcodec_alloc_context3(const AVCodec* codec);

const AVCodec* __wrap_avcodec_find_encoder_by_name(const char* name) {
  the_world.sought.emplace_back(name);
  const auto encoder = the_world.encoders.find(name);
  if (encoder == the_world.encoders.end()) return nullptr;
  AVCodec& codec = found[name];
  codec.name = encoder->first.c_str();
  codec.type = AVMEDIA_TYPE_VIDEO;
  codec.id = encoder->second.id;
  return &codec;
}

// FFmpeg's own encoders are more than they show, so that it is told of none.
AVCodecContext* __wrap_avcodec_alloc_context3(const AVCodec*) {
  return __real_avcodec_alloc_context3(nullptr);
}

int __wrap_avcodec_get_supported_config(const AVCodecContext*, const AVCodec* codec,
                                        AVCodecConfig config, unsigned, const void** list,
                                        int* count) {
  const auto& formats = the_world.encoders.at(codec->name).formats;
  *list = nullptr;
  *count = 0;
  if (config != AV_CODEC_CONFIG_PIX_FORMAT || formats.empty()) return 0;
  *list = formats.data();
  *count = static_cast<int>(formats.size());
  return 0;
}

int __wrap_avcodec_open2(AVCodecContext* context, const AVCodec* codec, AVDictionary** options) {
  Opened opened;
  opened.name = codec->name;
  opened.context = context;
  const AVDictionaryEntry* entry = nullptr;
  while ((entry = av_dict_iterate(*options, entry)) != nullptr)
    opened.options[entry->key] = entry->value;
  the_world.opened.push_back(std::move(opened));
  return the_world.encoders.at(codec->name).open_result;
}

int __wrap_avcodec_send_frame(AVCodecContext*, const AVFrame* frame) {
  if (const int result = next_of(&the_world.send_results); result != 0) return result;
  the_world.sent.push_back(sent_of(*frame));
  if (the_world.holds_frames) the_world.held.emplace_back(av_frame_clone(frame));
  if (auto packet = the_world.encode(the_world.sent.back())) ready.push_back(std::move(*packet));
  return 0;
}

int __wrap_avcodec_receive_packet(AVCodecContext*, AVPacket* packet) {
  if (const int result = next_of(&the_world.receive_results); result != 0) return result;
  if (ready.empty()) return AVERROR(EAGAIN);
  const Packet& next = ready.front();
  if (const int result = av_new_packet(packet, static_cast<int>(next.bytes.size())); result < 0)
    return result;
  std::copy(next.bytes.begin(), next.bytes.end(), packet->data);
  if (next.key) packet->flags |= AV_PKT_FLAG_KEY;
  ready.pop_front();
  return 0;
}
}
