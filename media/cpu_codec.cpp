#include "media/cpu_codec.h"

#include <array>
#include <vector>

namespace lund_cpu {

namespace {

constexpr std::array HEVC_ENCODERS = {"hevc_nvenc", "hevc_amf", "hevc_qsv"};
constexpr std::array H264_ENCODERS = {"h264_nvenc", "h264_amf", "h264_qsv"};
constexpr auto SOFTWARE_ENCODER = "libopenh264";

std::vector<std::string> candidate_names(bool prefer_hevc, bool hardware,
                                         const std::string& preferred,
                                         const std::string& required) {
  if (!required.empty()) return {required};
  std::vector<std::string> names;
  if (!preferred.empty()) names.push_back(preferred);
  if (!hardware) {
    names.emplace_back(SOFTWARE_ENCODER);
    return names;
  }
  const auto& first = prefer_hevc ? HEVC_ENCODERS : H264_ENCODERS;
  const auto& second = prefer_hevc ? H264_ENCODERS : HEVC_ENCODERS;
  names.insert(names.end(), first.begin(), first.end());
  names.insert(names.end(), second.begin(), second.end());
  return names;
}

// Which NAL unit types stand in an Annex B byte stream, a bit for each. The type is what `shift`
// and `mask` leave of the byte behind a start code. The longer start code ends in the shorter.
std::uint64_t nal_types(const std::uint8_t* data, std::uint64_t size, unsigned shift,
                        unsigned mask) {
  std::uint64_t types = 0;
  for (std::uint64_t i = 0; i + 3 < size; ++i)
    if (data[i] == 0 && data[i + 1] == 0 && data[i + 2] == 1)
      types |= std::uint64_t{1} << ((data[i + 3] >> shift) & mask);
  return types;
}

constexpr std::uint64_t bit(unsigned type) {
  return std::uint64_t{1} << type;
}

}  // namespace

bool codec_is_hevc(const std::string& name) {
  return name.find("hevc") != std::string::npos || name.find("265") != std::string::npos;
}

std::optional<CodecCandidate> select_codec(
    bool prefer_hevc, bool hardware, const std::string& preferred, const std::string& required,
    const std::function<bool(const CodecCandidate&)>& try_candidate) {
  for (const std::string& name : candidate_names(prefer_hevc, hardware, preferred, required)) {
    const CodecCandidate candidate{name, codec_is_hevc(name)};
    if (try_candidate(candidate)) return candidate;
  }
  return std::nullopt;
}

bool h264_bootstrap(const std::uint8_t* data, std::uint64_t size) {
  constexpr std::uint64_t NEEDED = bit(7) | bit(8) | bit(5);  // SPS, PPS, IDR slice
  if (!data || size < 4) return false;
  return (nal_types(data, size, 0, 31) & NEEDED) == NEEDED;
}

bool hevc_bootstrap(const std::uint8_t* data, std::uint64_t size) {
  constexpr std::uint64_t NEEDED = bit(32) | bit(33) | bit(34);  // VPS, SPS, PPS
  constexpr std::uint64_t IDR = bit(19) | bit(20);               // IDR_W_RADL, IDR_N_LP
  if (!data || size < 5) return false;
  const std::uint64_t types = nal_types(data, size, 1, 63);
  return (types & NEEDED) == NEEDED && (types & IDR) != 0;
}

bool session_ready(bool capture_ready, bool encoder_open, bool keyframe_good) {
  return capture_ready && encoder_open && keyframe_good;
}

bool close_initial_pairing(bool machine_mode) {
  return machine_mode;
}

}  // namespace lund_cpu
