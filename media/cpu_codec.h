// Decisions about codecs that need neither a platform nor a codec library: which encoders to try in
// which order, whether a keyframe can start a decoder, whether a session may go on. Pure.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

namespace lund_cpu {

struct CodecCandidate {
  std::string name;  // an FFmpeg encoder name
  bool hevc = false;
};

bool codec_is_hevc(const std::string& name);  // the name contains "hevc" or "265"

// Offers candidates in order to `try_candidate` and returns the first that it takes. `required`
// alone if not empty; else `preferred` first if not empty, then the hardware families in the order
// of `prefer_hevc`, or, without a device, "libopenh264". An empty `try_candidate` throws
// std::bad_function_call.
std::optional<CodecCandidate> select_codec(
    bool prefer_hevc, bool hardware, const std::string& preferred, const std::string& required,
    const std::function<bool(const CodecCandidate&)>& try_candidate);

// Whether an Annex B access unit can start a decoder by itself: parameter sets and an IDR slice.
bool h264_bootstrap(const std::uint8_t* data, std::uint64_t size);
bool hevc_bootstrap(const std::uint8_t* data, std::uint64_t size);

bool session_ready(bool capture_ready, bool encoder_open, bool keyframe_good);

// Whether a host closes the pairing with which it starts: the machine-wide worker does.
bool close_initial_pairing(bool machine_mode);

}  // namespace lund_cpu
