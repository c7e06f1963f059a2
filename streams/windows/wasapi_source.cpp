#include "streams/windows/wasapi_source.h"

#include "streams/audio_convert.h"

namespace {

constexpr DWORD RECORDING = AUDCLNT_STREAMFLAGS_LOOPBACK | AUDCLNT_STREAMFLAGS_EVENTCALLBACK;
constexpr DWORD CONVERTING =
    AUDCLNT_STREAMFLAGS_AUTOCONVERTPCM | AUDCLNT_STREAMFLAGS_SRC_DEFAULT_QUALITY;
constexpr REFERENCE_TIME BUFFER_100NS = 200'000;
constexpr UINT64 UNITS_OF_100NS_PER_US = 10;

constexpr WORD EXTENSIBLE_BYTES = sizeof(WAVEFORMATEXTENSIBLE) - sizeof(WAVEFORMATEX);
static_assert(EXTENSIBLE_BYTES == 22);

// What a format's tag is in a WAVEFORMATEXTENSIBLE.
constexpr GUID sub_format(WORD tag) {
  return {tag, 0x0000, 0x0010, {0x80, 0x00, 0x00, 0xAA, 0x00, 0x38, 0x9B, 0x71}};
}

MixFormat::SubFormat sub_format_of(const WAVEFORMATEX& format) {
  if (format.wFormatTag != WAVE_FORMAT_EXTENSIBLE || format.cbSize < EXTENSIBLE_BYTES)
    return MixFormat::SubFormat::Other;
  const GUID& id = reinterpret_cast<const WAVEFORMATEXTENSIBLE&>(format).SubFormat;
  if (id == sub_format(WAVE_FORMAT_PCM)) return MixFormat::SubFormat::Pcm;
  if (id == sub_format(WAVE_FORMAT_IEEE_FLOAT)) return MixFormat::SubFormat::Float;
  return MixFormat::SubFormat::Other;
}

MixFormat mix_format(const WAVEFORMATEX& format) {
  return {.tag = format.wFormatTag,
          .extra_bytes = format.cbSize,
          .sub_format = sub_format_of(format),
          .rate = format.nSamplesPerSec,
          .channels = format.nChannels,
          .bits = format.wBitsPerSample,
          .block_align = format.nBlockAlign};
}

WAVEFORMATEXTENSIBLE converted_format() {
  using audio_internal::CONVERTED_FORMAT;
  using audio_internal::OPUS_RATE;
  WAVEFORMATEXTENSIBLE format{};
  format.Format.wFormatTag = WAVE_FORMAT_EXTENSIBLE;
  format.Format.nChannels = CONVERTED_FORMAT.channels;
  format.Format.nSamplesPerSec = OPUS_RATE;
  format.Format.nAvgBytesPerSec = OPUS_RATE * CONVERTED_FORMAT.block_align;
  format.Format.nBlockAlign = CONVERTED_FORMAT.block_align;
  format.Format.wBitsPerSample = CONVERTED_FORMAT.bits;
  format.Format.cbSize = EXTENSIBLE_BYTES;
  format.Samples.wValidBitsPerSample = CONVERTED_FORMAT.bits;
  format.dwChannelMask = SPEAKER_FRONT_LEFT | SPEAKER_FRONT_RIGHT;
  format.SubFormat = sub_format(WAVE_FORMAT_IEEE_FLOAT);
  return format;
}

std::uint32_t number(HRESULT result) {
  return FAILED(result) ? static_cast<std::uint32_t>(result) : 0;
}

}  // namespace

std::unique_ptr<AudioSource> make_native_audio_source() {
  return std::make_unique<WasapiSource>();
}

// ---- Setting up

std::uint32_t WasapiSource::open(const std::atomic<bool>&, std::string* device, MixFormat* mix) {
  close();
  device->clear();
  if (const HRESULT result = make_enumerator_(&enumerator_); FAILED(result)) return number(result);
  if (const HRESULT result = default_output(*enumerator_.Get(), &device_); FAILED(result))
    return number(result);
  *device = device_id(*device_.Get());
  if (const HRESULT result = activate_client(); FAILED(result)) return number(result);
  if (const HRESULT result = client_->GetMixFormat(mix_.receive()); FAILED(result))
    return number(result);
  *mix = mix_format(*mix_.get());
  return 0;
}

HRESULT WasapiSource::activate_client() {
  client_.Reset();
  return device_->Activate(__uuidof(IAudioClient), CLSCTX_ALL, nullptr,
                           reinterpret_cast<void**>(client_.GetAddressOf()));
}

// A client that has refused a form, or failed, is of no further use.
std::uint32_t WasapiSource::prepare(const std::atomic<bool>&, Form form) {
  if (!client_) {
    if (const HRESULT result = activate_client(); FAILED(result)) return number(result);
  }
  const bool converted = form == Form::Converted;
  const WAVEFORMATEXTENSIBLE wanted = converted_format();
  const HRESULT result =
      client_->Initialize(AUDCLNT_SHAREMODE_SHARED, converted ? RECORDING | CONVERTING : RECORDING,
                          BUFFER_100NS, 0, converted ? &wanted.Format : mix_.get(), nullptr);
  if (FAILED(result)) client_.Reset();
  return number(result);
}

std::uint32_t WasapiSource::start() {
  ready_.reset(CreateEventW(nullptr, FALSE, FALSE, nullptr));
  if (!ready_) return number(HRESULT_FROM_WIN32(GetLastError()));
  if (const HRESULT result = client_->SetEventHandle(ready_.get()); FAILED(result))
    return number(result);
  if (const HRESULT result = client_->GetService(IID_PPV_ARGS(&capture_)); FAILED(result))
    return number(result);
  return number(client_->Start());
}

// ---- Recording

void WasapiSource::wait(std::uint32_t wait_ms) {
  WaitForSingleObject(ready_.get(), wait_ms);
}

std::uint32_t WasapiSource::next_buffer(AudioBuffer* out) {
  *out = {};
  UINT32 frames = 0;
  if (const HRESULT result = capture_->GetNextPacketSize(&frames); FAILED(result))
    return number(result);
  if (frames == 0) return 0;
  BYTE* data = nullptr;
  DWORD flags = 0;
  UINT64 device_position = 0;
  UINT64 played_100ns = 0;  // by the performance counter, which lund_now_us reads too
  if (const HRESULT result =
          capture_->GetBuffer(&data, &taken_frames_, &flags, &device_position, &played_100ns);
      FAILED(result))
    return number(result);
  *out = {.data = data,
          .frames = taken_frames_,
          .silent = (flags & AUDCLNT_BUFFERFLAGS_SILENT) != 0,
          .device_us = played_100ns / UNITS_OF_100NS_PER_US};
  return 0;
}

void WasapiSource::release_buffer() {
  capture_->ReleaseBuffer(taken_frames_);
}

std::string WasapiSource::default_device() {
  return default_output_id(*enumerator_.Get());
}

void WasapiSource::close() {
  if (capture_) client_->Stop();
  mix_.reset();
  ready_.reset();
  capture_.Reset();
  client_.Reset();
  device_.Reset();
  enumerator_.Reset();
}
