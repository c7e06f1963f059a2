#include "apps/client/wav_writer.h"

#include <algorithm>
#include <cmath>
#include <system_error>

#include "connection/byte_order.h"

namespace {

constexpr std::size_t FRAME_BYTES = 2 * SOUND_CHANNELS;
constexpr std::size_t HEADER_BYTES = 44;
// RIFF counts in 32 bits: a little over six hours. What comes later is left out.
constexpr std::uint64_t FRAMES_MAX = (UINT32_MAX - HEADER_BYTES) / FRAME_BYTES;
// The host stamps what its sound system hands it, which comes when that finds the time: within this
// much a block follows the one before it. 20 ms.
constexpr std::int64_t SLACK_FRAMES = SOUND_RATE / 50;
// Sound systems err by a quarter of a second in what they say of their delay, most of all when
// something begins to play. A block that seems to belong where sound stands already follows it
// nevertheless, until it would come this late. 500 ms.
constexpr std::int64_t LATE_FRAMES = SOUND_RATE / 2;

std::int16_t sample_of(float value) {
  return static_cast<std::int16_t>(std::clamp(std::lround(value * 32768.0F), -32768L, 32767L));
}

}  // namespace

bool WavWriter::open(const std::filesystem::path& path, std::string* error) {
  path_ = path;
  file_.open(path, std::ios::binary | std::ios::trunc);
  if (file_) write_header();
  if (file_) return true;
  *error = "cannot write " + path.string();
  return false;
}

// The canonical header of PCM (RIFF, "WAVEfmt ", format 1).
void WavWriter::write_header() {
  const auto data_bytes = static_cast<std::uint32_t>(frames_ * FRAME_BYTES);
  std::uint8_t header[HEADER_BYTES] = {
      'R', 'I', 'F', 'F', 0, 0, 0, 0, 'W', 'A', 'V', 'E', 'f', 'm', 't', ' ', 16,  0,   0, 0, 1, 0,
      0,   0,   0,   0,   0, 0, 0, 0, 0,   0,   0,   0,   0,   0,   'd', 'a', 't', 'a', 0, 0, 0, 0};
  store_le(header + 4, static_cast<std::uint32_t>(data_bytes + HEADER_BYTES - 8));
  store_le(header + 22, static_cast<std::uint16_t>(SOUND_CHANNELS));
  store_le(header + 24, static_cast<std::uint32_t>(SOUND_RATE));
  store_le(header + 28, static_cast<std::uint32_t>(SOUND_RATE * FRAME_BYTES));
  store_le(header + 32, static_cast<std::uint16_t>(FRAME_BYTES));
  store_le(header + 34, std::uint16_t{16});
  store_le(header + 40, data_bytes);
  file_.write(reinterpret_cast<const char*>(header), sizeof header);
}

void WavWriter::begin(std::uint64_t start_us) {
  begun_ = true;
  start_us_ = start_us;
}

std::int64_t WavWriter::frame_at(std::uint64_t time_us) const {
  return static_cast<std::int64_t>(time_us - start_us_) * SOUND_RATE / 1'000'000;
}

void WavWriter::put(const SoundBlock& block) {
  if (!begun_) return;
  const std::int64_t lead = frame_at(block.capture_us) - static_cast<std::int64_t>(frames_);
  std::size_t skip = 0;  // what is too early or too late
  if (lead > SLACK_FRAMES || (!follows_ && lead > 0))
    write_silence(static_cast<std::uint64_t>(lead));
  else if (!follows_ && lead < 0)
    skip = static_cast<std::size_t>(-lead);
  else if (lead < -LATE_FRAMES)
    skip = block.frames;
  if (skip >= block.frames) return;
  follows_ = true;
  if (block.concealed)
    write_silence(block.frames - skip);  // a recording shows what came
  else
    write_samples(block.samples + skip * SOUND_CHANNELS, block.frames - skip);
}

void WavWriter::write_silence(std::uint64_t frames) {
  constexpr std::uint64_t STEP = SOUND_RATE;
  frames = std::min(frames, FRAMES_MAX - frames_);
  frames_ += frames;
  while (frames > 0) {
    const std::uint64_t now = std::min(frames, STEP);
    bytes_.assign(now * FRAME_BYTES, 0);
    flush();
    frames -= now;
  }
}

void WavWriter::write_samples(const float* samples, std::size_t frames) {
  frames = static_cast<std::size_t>(std::min<std::uint64_t>(frames, FRAMES_MAX - frames_));
  frames_ += frames;
  bytes_.resize(frames * FRAME_BYTES);
  for (std::size_t i = 0; i < frames * SOUND_CHANNELS; ++i)
    store_le(&bytes_[2 * i], static_cast<std::uint16_t>(sample_of(samples[i])));
  flush();
}

void WavWriter::flush() {
  file_.write(reinterpret_cast<const char*>(bytes_.data()),
              static_cast<std::streamsize>(bytes_.size()));
}

bool WavWriter::finish(std::uint64_t end_us) {
  if (!file_.is_open()) return true;
  if (begun_ && end_us > start_us_) {
    const auto wanted = static_cast<std::uint64_t>(frame_at(end_us));
    if (wanted > frames_) write_silence(wanted - frames_);
    frames_ = std::min(frames_, wanted);
  }
  file_.seekp(0);
  write_header();
  file_.close();
  if (file_.fail()) return false;
  std::error_code failed;  // of a pipe or a device, which have no end to move
  std::filesystem::resize_file(path_, HEADER_BYTES + frames_ * FRAME_BYTES, failed);
  return true;
}
