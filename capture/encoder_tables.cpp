#include <algorithm>

#include "capture/encoder_internal.h"
#include "connection/clock.h"
#include "control/log.h"

namespace encoder_internal {
namespace {

constexpr Option NVIDIA[] = {{"preset", "p1"},    {"tune", "ull"},      {"zerolatency", "1"},
                             {"delay", "0"},      {"rc", "cbr"},        {"rc-lookahead", "0"},
                             {"forced-idr", "1"}, {"no-scenecut", "1"}, {"multipass", "disabled"}};
constexpr Option AMD[] = {{"usage", "ultralowlatency"},
                          {"quality", "speed"},
                          {"rc", "cbr"},
                          {"header_insertion_mode", "idr"},
                          {"latency", "1"},
                          {"enforce_hrd", "1"},
                          {"forced_idr", "1"}};
constexpr Option INTEL[] = {{"preset", "veryfast"},
                            {"async_depth", "1"},
                            {"look_ahead", "0"},
                            {"forced_idr", "1"},
                            {"low_delay_brc", "1"}};
constexpr Option SOFTWARE[] = {{"rc_mode", "bitrate"}, {"allow_skip_frames", "0"}};

// Keyframes come on request alone; the pipeline refreshes long before the smaller one.
constexpr int GOP_ENDLESS = 0x7FFFFFFF;
constexpr int GOP_LONG = 100000;

constexpr int YIELD_TURNS = 200;  // before the wait for a packet begins to sleep

bool contains(std::string_view text, std::string_view part) {
  return text.find(part) != std::string_view::npos;
}

}  // namespace

std::span<const Option> family_options(std::string_view name) {
  if (contains(name, "nvenc")) return NVIDIA;
  if (contains(name, "amf")) return AMD;
  if (contains(name, "qsv")) return INTEL;
  if (name == "libopenh264") return SOFTWARE;
  return {};
}

bool takes_rate_in_place(std::string_view name) {
  return contains(name, "nvenc");
}

int gop_size(std::string_view name) {
  return contains(name, "nvenc") ? GOP_ENDLESS : GOP_LONG;
}

std::int64_t vbv_bits(int bitrate_kbps, int fps) {
  return std::int64_t{bitrate_kbps} * 1000 / (fps < 1 ? 60 : fps);
}

bool choose_path(bool has_device, const AVPixelFormat* formats, int count, FramePath* path) {
  const auto listed = [&](AVPixelFormat format) {
    return formats != nullptr && std::find(formats, formats + count, format) != formats + count;
  };
  if (!has_device) {
    *path = FramePath::Cpu;
    return listed(AV_PIX_FMT_YUV420P);
  }
  if (listed(AV_PIX_FMT_D3D11)) {
    *path = FramePath::ZeroCopy;
    return true;
  }
  *path = FramePath::ReadBack;
  return formats == nullptr || listed(AV_PIX_FMT_NV12);
}

bool collect_packets(const std::function<int(AVPacket*)>& next, AVPacket* packet, int wait_ms,
                     std::vector<std::uint8_t>* out, bool* is_keyframe) {
  const std::uint64_t begin_us = lund_now_us();
  for (int turn = 0;;) {
    const int result = next(packet);
    if (result >= 0) {
      out->insert(out->end(), packet->data, packet->data + packet->size);
      if (packet->flags & AV_PKT_FLAG_KEY) *is_keyframe = true;
      av_packet_unref(packet);
      continue;
    }
    if (result != AVERROR(EAGAIN)) {
      hlog("encoder: receive_packet failed: %s", ErrorText(result).text);
      return false;
    }
    if (!out->empty()) return true;
    if (lund_now_us() - begin_us >= static_cast<std::uint64_t>(wait_ms) * 1000) return true;
    if (turn++ < YIELD_TURNS) {
      give_up_processor();
    } else {
      sleep_one_ms();
    }
  }
}

}  // namespace encoder_internal
