// The sound outputs as WASAPI's endpoint volumes; an endpoint's id is the device's. A mute of an
// endpoint acts behind the loopback capture, which hears everything still.
//
// The thread that opens is a member of COM until it closes. The system calls the listener on
// threads of its own, through a relay with a mutex, which is all that they share with the owner:
// nobody who holds the mutex calls the system.
#pragma once

#include <map>
#include <memory>
#include <optional>
#include <string>

#include "control/windows/com.h"
#include "streams/sound_endpoints.h"
#include "streams/windows/sound_devices.h"
// After what com.h includes.
#include <audioclient.h>
#include <endpointvolume.h>

class WasapiEndpoints final : public SoundEndpoints {
 public:
  explicit WasapiEndpoints(MakeDeviceEnumerator make_enumerator = make_device_enumerator);
  ~WasapiEndpoints() override;
  WasapiEndpoints(const WasapiEndpoints&) = delete;
  WasapiEndpoints& operator=(const WasapiEndpoints&) = delete;

  bool open(Listener* listener, std::string* error) override;
  void close() override;
  std::string default_output() override;
  int is_muted(const std::string& id) override;
  bool can_mute(const std::string& id) override { return is_muted(id) >= 0; }
  bool set_mute(const std::string& id, bool muted) override;

 private:
  class Relay;
  class DeviceCallback;
  class VolumeCallback;
  class Endpoint;

  IAudioEndpointVolume* endpoint(const std::string& id);
  bool checked(const std::string& id, HRESULT result);

  const MakeDeviceEnumerator make_enumerator_;
  std::optional<ComThread> com_;
  std::shared_ptr<Relay> relay_;
  ComPtr<IMMDeviceEnumerator> enumerator_;
  ComPtr<IMMNotificationClient> device_callback_;
  std::map<std::string, Endpoint> endpoints_;  // that were asked about or set
};
