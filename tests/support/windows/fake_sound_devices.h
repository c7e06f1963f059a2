// One sound output, made up interface by interface; what it is asked for is written down. Outlives
// what is made of it. One thread, but for what a test calls back.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <deque>
#include <string>
#include <vector>

#include "control/windows/com.h"
#include "streams/windows/sound_devices.h"
#include "tests/support/windows/fake_com.h"
// After what com.h includes.
#include <audioclient.h>
#include <endpointvolume.h>

class FakeSoundDevices {
 public:
  struct Initialized {
    AUDCLNT_SHAREMODE mode;
    DWORD flags;
    REFERENCE_TIME duration;
    REFERENCE_TIME periodicity;
    WAVEFORMATEXTENSIBLE format;  // the second half only where the first says so
  };
  struct Sound {
    std::vector<BYTE> bytes;
    UINT32 frames = 0;
    DWORD flags = 0;
    UINT64 played_100ns = 0;
  };

  FakeSoundDevices() {
    enumerator.on<&IMMDeviceEnumerator::GetDefaultAudioEndpoint>(
        [this](EDataFlow flow, ERole role, IMMDevice** out) {
          EXPECT_EQ(flow, eRender);
          EXPECT_EQ(role, eConsole);
          return id.empty() ? NOT_FOUND : device.give(out);
        });
    enumerator.on<&IMMDeviceEnumerator::GetDevice>([this](LPCWSTR wanted, IMMDevice** out) {
      return wanted == id ? device.give(out) : NOT_FOUND;
    });
    enumerator.on<&IMMDeviceEnumerator::RegisterEndpointNotificationCallback>(
        [this](IMMNotificationClient* callback) {
          device_callbacks.emplace_back(callback);
          return S_OK;
        });
    enumerator.on<&IMMDeviceEnumerator::UnregisterEndpointNotificationCallback>(
        [this](IMMNotificationClient* callback) { return take_out(&device_callbacks, callback); });
    device.on<&IMMDevice::GetId>([this](LPWSTR* out) {
      return copy_out(id.c_str(), (id.size() + 1) * sizeof(wchar_t), out);
    });
    device.on<&IMMDevice::Activate>([this](REFIID wanted, DWORD, PROPVARIANT*, void** out) {
      if (wanted == __uuidof(IAudioClient))
        return make_client().give(reinterpret_cast<IAudioClient**>(out));
      if (wanted == __uuidof(IAudioEndpointVolume))
        return volume.give(reinterpret_cast<IAudioEndpointVolume**>(out));
      return E_NOINTERFACE;
    });
    make_capture();
    make_volume();
  }

  MakeDeviceEnumerator maker() {
    return [this](IMMDeviceEnumerator** out) { return enumerator.give(out); };
  }

  // As the user does it, with any mixer, or the program itself.
  void tell_volume(bool muted_now, const GUID& context) {
    AUDIO_VOLUME_NOTIFICATION_DATA news{};
    news.guidEventContext = context;
    news.bMuted = muted_now;
    for (const auto& callback : volume_callbacks) EXPECT_EQ(callback->OnNotify(&news), S_OK);
  }

  static constexpr HRESULT NOT_FOUND = HRESULT_FROM_WIN32(ERROR_NOT_FOUND);

  fake_com::Stage stage;
  std::wstring id = L"speakers";  // empty: there is no output
  WAVEFORMATEXTENSIBLE mix = float_mix();
  std::deque<Sound> sounds;
  bool muted = false;

  std::vector<Initialized> initialized;
  std::vector<UINT32> released_frames;
  HANDLE event = nullptr;
  GUID mute_context{};
  std::vector<ComPtr<IMMNotificationClient>> device_callbacks;  // registered
  std::vector<ComPtr<IAudioEndpointVolumeCallback>> volume_callbacks;

  fake_com::Object& enumerator = stage.make<IMMDeviceEnumerator>("enumerator");
  fake_com::Object& device = stage.make<IMMDevice>("device");
  fake_com::Object& capture = stage.make<IAudioCaptureClient>("capture");
  fake_com::Object& volume = stage.make<IAudioEndpointVolume>("volume");

 private:
  static WAVEFORMATEXTENSIBLE float_mix() {
    WAVEFORMATEXTENSIBLE format{};
    format.Format = {.wFormatTag = WAVE_FORMAT_IEEE_FLOAT,
                     .nChannels = 2,
                     .nSamplesPerSec = 48'000,
                     .nAvgBytesPerSec = 384'000,
                     .nBlockAlign = 8,
                     .wBitsPerSample = 32,
                     .cbSize = 0};
    return format;
  }

  template <class Type>
  static HRESULT copy_out(const void* bytes, std::size_t size, Type** out) {
    void* const copy = CoTaskMemAlloc(size);
    std::memcpy(copy, bytes, size);
    *out = static_cast<Type*>(copy);
    return S_OK;
  }
  template <class Interface>
  static HRESULT take_out(std::vector<ComPtr<Interface>>* all, Interface* one) {
    const auto found = std::ranges::find_if(*all, [&](const auto& c) { return c.Get() == one; });
    EXPECT_NE(found, all->end()) << "was not registered";
    if (found == all->end()) return NOT_FOUND;
    all->erase(found);
    return S_OK;
  }

  // Each of its own: one that was initialised, or has failed, serves nobody else.
  fake_com::Object& make_client() {
    fake_com::Object& client = stage.make<IAudioClient>("client");
    client.on<&IAudioClient::GetMixFormat>([this](WAVEFORMATEX** out) {
      return copy_out(&mix, sizeof(WAVEFORMATEX) + mix.Format.cbSize, out);
    });
    client.on<&IAudioClient::Initialize>([this](AUDCLNT_SHAREMODE mode, DWORD flags,
                                                REFERENCE_TIME duration, REFERENCE_TIME periodicity,
                                                const WAVEFORMATEX* format, LPCGUID session) {
      EXPECT_EQ(session, nullptr);
      initialized.push_back({mode, flags, duration, periodicity, {}});
      std::memcpy(&initialized.back().format, format, sizeof(WAVEFORMATEX) + format->cbSize);
      return S_OK;
    });
    client.on<&IAudioClient::SetEventHandle>([this](HANDLE handle) {
      event = handle;
      return S_OK;
    });
    client.on<&IAudioClient::GetService>([this](REFIID wanted, void** out) {
      EXPECT_TRUE(wanted == __uuidof(IAudioCaptureClient));
      return capture.give(reinterpret_cast<IAudioCaptureClient**>(out));
    });
    client.on<&IAudioClient::Start>([] { return S_OK; });
    client.on<&IAudioClient::Stop>([] { return S_OK; });
    return client;
  }

  void make_capture() {
    capture.on<&IAudioCaptureClient::GetNextPacketSize>([this](UINT32* frames) {
      *frames = sounds.empty() ? 0 : sounds.front().frames;
      return S_OK;
    });
    capture.on<&IAudioCaptureClient::GetBuffer>(
        [this](BYTE** data, UINT32* frames, DWORD* flags, UINT64*, UINT64* played) {
          Sound& sound = sounds.front();
          *data = sound.bytes.empty() ? nullptr : sound.bytes.data();
          *frames = sound.frames;
          *flags = sound.flags;
          *played = sound.played_100ns;
          return S_OK;
        });
    capture.on<&IAudioCaptureClient::ReleaseBuffer>([this](UINT32 frames) {
      released_frames.push_back(frames);
      sounds.pop_front();
      return S_OK;
    });
  }

  void make_volume() {
    volume.on<&IAudioEndpointVolume::RegisterControlChangeNotify>(
        [this](IAudioEndpointVolumeCallback* callback) {
          volume_callbacks.emplace_back(callback);
          return S_OK;
        });
    volume.on<&IAudioEndpointVolume::UnregisterControlChangeNotify>(
        [this](IAudioEndpointVolumeCallback* callback) {
          return take_out(&volume_callbacks, callback);
        });
    volume.on<&IAudioEndpointVolume::GetMute>([this](BOOL* out) {
      *out = muted;
      return S_OK;
    });
    volume.on<&IAudioEndpointVolume::SetMute>([this](BOOL mute, LPCGUID context) {
      muted = mute != FALSE;
      mute_context = *context;
      return S_OK;
    });
  }
};
