#include "capture/windows/vdd_device.h"

#include <algorithm>

#include "control/windows/wide_text.h"

namespace {

using Driver = VirtualDisplayDriver;

// GUID_DEVCLASS_DISPLAY
constexpr GUID DISPLAY_CLASS = {
    0x4d36e968, 0xe325, 0x11ce, {0xbf, 0xc1, 0x08, 0x00, 0x2b, 0xe1, 0x03, 0x18}};

// The present devices of the class, while it lives.
class DeviceList {
 public:
  explicit DeviceList(const DeviceCalls& calls)
      : calls_(calls),
        list_(calls.class_devices(&DISPLAY_CLASS, nullptr, nullptr, DIGCF_PRESENT)) {}
  ~DeviceList() {
    if (list_ != INVALID_HANDLE_VALUE) calls_.destroy_list(list_);
  }
  DeviceList(const DeviceList&) = delete;
  DeviceList& operator=(const DeviceList&) = delete;

  HDEVINFO get() const { return list_; }

  std::optional<SP_DEVINFO_DATA> at(DWORD index) const {
    SP_DEVINFO_DATA device = {};
    device.cbSize = sizeof(device);
    if (list_ == INVALID_HANDLE_VALUE || !calls_.device_info(list_, index, &device))
      return std::nullopt;
    return device;
  }

  std::string id(SP_DEVINFO_DATA device) const {
    wchar_t text[MAX_DEVICE_ID_LEN + 1] = {};
    if (!calls_.instance_id(list_, &device, text, MAX_DEVICE_ID_LEN, nullptr)) return {};
    return to_utf8(text);
  }

  // A text, or several with a zero behind each. Empty when the device has no such property.
  std::wstring property(SP_DEVINFO_DATA device, DWORD name) const {
    std::wstring text;
    for (DWORD needed = 0;;) {
      const auto size = static_cast<DWORD>(text.size() * sizeof(wchar_t));
      auto* const buffer = size > 0 ? reinterpret_cast<BYTE*>(text.data()) : nullptr;
      if (calls_.registry_property(list_, &device, name, nullptr, buffer, size, &needed)) {
        text.resize(needed / sizeof(wchar_t));
        return text;
      }
      // It may have grown since it was asked for, but nothing else is worth another question.
      if (GetLastError() != ERROR_INSUFFICIENT_BUFFER || needed <= size) return {};
      text.resize((needed + sizeof(wchar_t) - 1) / sizeof(wchar_t));
    }
  }

 private:
  const DeviceCalls& calls_;
  const HDEVINFO list_;
};

// As the registry has them: each with a zero behind it, one more behind the last, or none.
std::vector<std::string> texts_of(std::wstring_view several) {
  std::vector<std::string> texts;
  while (!several.empty()) {
    const std::wstring_view text = several.substr(0, several.find(L'\0'));
    if (text.empty()) break;
    texts.push_back(to_utf8(text));
    several.remove_prefix(std::min(text.size() + 1, several.size()));
  }
  return texts;
}

std::optional<SP_DEVINFO_DATA> device_with(const DeviceList& devices, const std::string& id) {
  for (DWORD index = 0; const auto device = devices.at(index); ++index)
    if (devices.id(*device) == id) return device;
  return std::nullopt;
}

}  // namespace

std::vector<Driver::Adapter> display_adapters(const DeviceCalls& calls) {
  const DeviceList devices(calls);
  std::vector<Driver::Adapter> adapters;
  for (DWORD index = 0; const auto device = devices.at(index); ++index) {
    const std::vector<std::string> description =
        texts_of(devices.property(*device, SPDRP_DEVICEDESC));
    adapters.push_back({devices.id(*device), texts_of(devices.property(*device, SPDRP_HARDWAREID)),
                        description.empty() ? std::string() : description[0]});
  }
  return adapters;
}

std::optional<Driver::AdapterStatus> adapter_status(const DeviceCalls& calls,
                                                    const std::string& id) {
  const DeviceList devices(calls);
  const auto device = device_with(devices, id);
  ULONG status = 0;
  ULONG problem = 0;
  if (!device || calls.status(&status, &problem, device->DevInst, 0) != CR_SUCCESS)
    return std::nullopt;
  return Driver::AdapterStatus{(status & DN_HAS_PROBLEM) != 0, problem, (status & DN_STARTED) != 0};
}

Driver::Result change_adapter(const DeviceCalls& calls, const std::string& id,
                              Driver::AdapterChange change) {
  const DeviceList devices(calls);
  auto device = device_with(devices, id);
  if (!device) return {false, ERROR_NO_SUCH_DEVINST};
  SP_PROPCHANGE_PARAMS parameters = {};
  parameters.ClassInstallHeader.cbSize = sizeof(parameters.ClassInstallHeader);
  parameters.ClassInstallHeader.InstallFunction = DIF_PROPERTYCHANGE;
  parameters.StateChange = static_cast<DWORD>(change);
  parameters.Scope = DICS_FLAG_GLOBAL;
  if (!calls.set_install_params(devices.get(), &*device, &parameters.ClassInstallHeader,
                                sizeof(parameters)) ||
      !calls.call_installer(DIF_PROPERTYCHANGE, devices.get(), &*device))
    return {false, GetLastError()};
  return {true, 0};
}
