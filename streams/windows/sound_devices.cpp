#include "streams/windows/sound_devices.h"

#include "control/windows/wide_text.h"

HRESULT make_device_enumerator(IMMDeviceEnumerator** out) {
  return CoCreateInstance(__uuidof(MMDeviceEnumerator), nullptr, CLSCTX_ALL, IID_PPV_ARGS(out));
}

HRESULT default_output(IMMDeviceEnumerator& enumerator, IMMDevice** out) {
  return enumerator.GetDefaultAudioEndpoint(eRender, eConsole, out);
}

std::string device_id(IMMDevice& device) {
  ComMemory<wchar_t> id;
  return SUCCEEDED(device.GetId(id.receive())) && id ? to_utf8(id.get()) : std::string();
}

std::string default_output_id(IMMDeviceEnumerator& enumerator) {
  ComPtr<IMMDevice> device;
  return SUCCEEDED(default_output(enumerator, &device)) ? device_id(*device.Get()) : std::string();
}
