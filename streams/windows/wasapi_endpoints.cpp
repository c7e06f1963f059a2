#include "streams/windows/wasapi_endpoints.h"

#include <atomic>
#include <mutex>
#include <utility>

#include "control/windows/wide_text.h"

namespace {

// Goes with every mute that this program sets, and comes back with the news of it.
constexpr GUID OUR_CHANGE = {
    0x6F1D5A52, 0x3C2B, 0x4E47, {0x9A, 0x51, 0x70, 0x61, 0x72, 0x73, 0x61, 0xA1}};

// What the system calls back, and counts the users of.
template <class Interface>
class Callback : public Interface {
 public:
  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID id, void** out) override {
    if (!out) return E_POINTER;
    const bool known = id == __uuidof(IUnknown) || id == __uuidof(Interface);
    *out = known ? static_cast<Interface*>(this) : nullptr;
    if (!known) return E_NOINTERFACE;
    AddRef();
    return S_OK;
  }
  ULONG STDMETHODCALLTYPE AddRef() override { return ++users_; }
  ULONG STDMETHODCALLTYPE Release() override {
    const ULONG left = --users_;
    if (left == 0) delete this;
    return left;
  }

 protected:
  virtual ~Callback() = default;

 private:
  std::atomic<ULONG> users_{0};  // a ComPtr that is made of it is the first
};

}  // namespace

// The way from the system's threads to the listener, which ends with `close`: a callback may be
// under way, or kept by the system, when it is unregistered.
class WasapiEndpoints::Relay {
 public:
  explicit Relay(Listener* listener) : listener_(listener) {}

  void default_changed() {
    const std::lock_guard lock(mutex_);
    if (listener_) listener_->default_changed();
  }
  void mute_changed(const std::string& id, bool muted) {
    const std::lock_guard lock(mutex_);
    if (listener_) listener_->mute_changed(id, muted);
  }
  void end() {
    const std::lock_guard lock(mutex_);
    listener_ = nullptr;
  }

 private:
  std::mutex mutex_;
  Listener* listener_;
};

class WasapiEndpoints::DeviceCallback final : public Callback<IMMNotificationClient> {
 public:
  explicit DeviceCallback(std::shared_ptr<Relay> relay) : relay_(std::move(relay)) {}

  HRESULT STDMETHODCALLTYPE OnDefaultDeviceChanged(EDataFlow flow, ERole role, LPCWSTR) override {
    if (flow == eRender && role == eConsole) relay_->default_changed();
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE OnDeviceStateChanged(LPCWSTR, DWORD) override { return S_OK; }
  HRESULT STDMETHODCALLTYPE OnDeviceAdded(LPCWSTR) override { return S_OK; }
  HRESULT STDMETHODCALLTYPE OnDeviceRemoved(LPCWSTR) override { return S_OK; }
  HRESULT STDMETHODCALLTYPE OnPropertyValueChanged(LPCWSTR, const PROPERTYKEY) override {
    return S_OK;
  }

 private:
  const std::shared_ptr<Relay> relay_;
};

class WasapiEndpoints::VolumeCallback final : public Callback<IAudioEndpointVolumeCallback> {
 public:
  VolumeCallback(std::shared_ptr<Relay> relay, std::string id)
      : relay_(std::move(relay)), id_(std::move(id)) {}

  HRESULT STDMETHODCALLTYPE OnNotify(PAUDIO_VOLUME_NOTIFICATION_DATA news) override {
    if (!news) return E_INVALIDARG;
    if (news->guidEventContext != OUR_CHANGE) relay_->mute_changed(id_, news->bMuted != FALSE);
    return S_OK;
  }

 private:
  const std::shared_ptr<Relay> relay_;
  const std::string id_;
};

// An endpoint's volume with the callback that is registered there.
class WasapiEndpoints::Endpoint {
 public:
  Endpoint(ComPtr<IAudioEndpointVolume> volume, ComPtr<IAudioEndpointVolumeCallback> callback)
      : volume_(std::move(volume)), callback_(std::move(callback)) {}
  ~Endpoint() { volume_->UnregisterControlChangeNotify(callback_.Get()); }
  Endpoint(const Endpoint&) = delete;
  Endpoint& operator=(const Endpoint&) = delete;

  IAudioEndpointVolume* volume() const { return volume_.Get(); }

 private:
  const ComPtr<IAudioEndpointVolume> volume_;
  const ComPtr<IAudioEndpointVolumeCallback> callback_;
};

std::unique_ptr<SoundEndpoints> make_sound_endpoints() {
  return std::make_unique<WasapiEndpoints>();
}

WasapiEndpoints::WasapiEndpoints(MakeDeviceEnumerator make_enumerator)
    : make_enumerator_(std::move(make_enumerator)) {}

WasapiEndpoints::~WasapiEndpoints() {
  close();
}

bool WasapiEndpoints::open(Listener* listener, std::string* error) {
  close();
  com_.emplace();
  if (FAILED(make_enumerator_(&enumerator_))) {
    *error = "cannot create the device enumerator";
    close();
    return false;
  }
  relay_ = std::make_shared<Relay>(listener);
  device_callback_ = new DeviceCallback(relay_);
  // Without news of another default the mute still works on the one that there is.
  if (FAILED(enumerator_->RegisterEndpointNotificationCallback(device_callback_.Get())))
    device_callback_.Reset();
  return true;
}

void WasapiEndpoints::close() {
  endpoints_.clear();
  if (device_callback_) enumerator_->UnregisterEndpointNotificationCallback(device_callback_.Get());
  device_callback_.Reset();
  enumerator_.Reset();
  if (relay_) relay_->end();
  relay_.reset();
  com_.reset();
}

std::string WasapiEndpoints::default_output() {
  return enumerator_ ? default_output_id(*enumerator_.Get()) : std::string();
}

int WasapiEndpoints::is_muted(const std::string& id) {
  IAudioEndpointVolume* volume = endpoint(id);
  BOOL muted = FALSE;
  if (!volume || !checked(id, volume->GetMute(&muted))) return -1;
  return muted ? 1 : 0;
}

bool WasapiEndpoints::set_mute(const std::string& id, bool muted) {
  IAudioEndpointVolume* volume = endpoint(id);
  return volume && checked(id, volume->SetMute(muted, &OUR_CHANGE));
}

IAudioEndpointVolume* WasapiEndpoints::endpoint(const std::string& id) {
  if (!enumerator_) return nullptr;
  if (const auto known = endpoints_.find(id); known != endpoints_.end())
    return known->second.volume();
  ComPtr<IMMDevice> device;
  if (FAILED(enumerator_->GetDevice(to_wide(id).c_str(), &device))) return nullptr;
  ComPtr<IAudioEndpointVolume> volume;
  if (FAILED(device->Activate(__uuidof(IAudioEndpointVolume), CLSCTX_ALL, nullptr,
                              reinterpret_cast<void**>(volume.GetAddressOf()))))
    return nullptr;
  const ComPtr<IAudioEndpointVolumeCallback> callback(new VolumeCallback(relay_, id));
  if (FAILED(volume->RegisterControlChangeNotify(callback.Get()))) return nullptr;
  return endpoints_.try_emplace(id, std::move(volume), callback).first->second.volume();
}

// A device that was pulled comes back as another object under the same id.
bool WasapiEndpoints::checked(const std::string& id, HRESULT result) {
  if (result == AUDCLNT_E_DEVICE_INVALIDATED) endpoints_.erase(id);
  return SUCCEEDED(result);
}
