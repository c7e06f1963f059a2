// Devices of a class, as records behind the calls of the set-up API and the device manager. A test
// says what there is and what fails; every list that is given out has to come back.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "capture/windows/vdd_device.h"

// Outlives the calls that it makes.
class FakeDevices {
 public:
  struct Device {
    std::wstring id;
    std::wstring hardware_ids;  // a zero behind each
    std::wstring description;
    ULONG status = DN_STARTED;
    ULONG problem = 0;
    CONFIGRET status_result = CR_SUCCESS;
  };

  std::vector<Device> devices;

  // ---- what fails, with this error
  bool no_list = false;
  bool no_ids = false;
  DWORD property_error = ERROR_SUCCESS;
  DWORD params_error = ERROR_SUCCESS;
  DWORD installer_error = ERROR_SUCCESS;
  int properties_grow = 0;  // this often there is more than was just said

  // ---- what was asked for
  std::vector<std::string> calls;
  GUID asked_class = {};
  SP_PROPCHANGE_PARAMS change = {};
  DEVINST changed_device = 0;

  ~FakeDevices() { EXPECT_EQ(open_lists_, 0); }

  DeviceCalls record() {
    DeviceCalls to;
    to.class_devices = [this](const GUID* of_class, const wchar_t* enumerator, HWND, DWORD flags) {
      EXPECT_EQ(enumerator, nullptr);
      EXPECT_EQ(flags, DWORD{DIGCF_PRESENT});
      asked_class = *of_class;
      if (no_list) return failed<HDEVINFO>(ERROR_INVALID_CLASS, INVALID_HANDLE_VALUE);
      ++open_lists_;
      return list();
    };
    to.destroy_list = [this](HDEVINFO given) {
      EXPECT_EQ(given, list());
      --open_lists_;
      return TRUE;
    };
    to.device_info = [this](HDEVINFO given, DWORD index, SP_DEVINFO_DATA* device) {
      EXPECT_EQ(given, list());
      EXPECT_EQ(device->cbSize, sizeof(SP_DEVINFO_DATA));
      if (index >= devices.size()) return failed<BOOL>(ERROR_NO_MORE_ITEMS, FALSE);
      device->DevInst = index + FIRST_INSTANCE;
      return TRUE;
    };
    to.instance_id = [this](HDEVINFO, SP_DEVINFO_DATA* device, wchar_t* id, DWORD size, DWORD*) {
      const std::wstring& text = of(device->DevInst).id;
      if (no_ids || text.size() >= size) return failed<BOOL>(ERROR_INSUFFICIENT_BUFFER, FALSE);
      std::copy_n(text.c_str(), text.size() + 1, id);
      return TRUE;
    };
    to.registry_property = [this](HDEVINFO, SP_DEVINFO_DATA* device, DWORD property, DWORD*,
                                  BYTE* buffer, DWORD size, DWORD* needed) {
      return read_property(of(device->DevInst), property, buffer, size, needed);
    };
    to.status = [this](ULONG* status, ULONG* problem, DEVINST instance, ULONG flags) {
      EXPECT_EQ(flags, 0u);
      const Device& device = of(instance);
      *status = device.status;
      *problem = device.problem;
      return device.status_result;
    };
    to.set_install_params = [this](HDEVINFO given, SP_DEVINFO_DATA* device,
                                   SP_CLASSINSTALL_HEADER* header, DWORD size) {
      EXPECT_EQ(given, list());
      EXPECT_EQ(size, sizeof(change));
      calls.emplace_back("params");
      std::memcpy(&change, header, sizeof(change));
      changed_device = device->DevInst;
      return params_error == ERROR_SUCCESS ? TRUE : failed<BOOL>(params_error, FALSE);
    };
    to.call_installer = [this](DI_FUNCTION function, HDEVINFO given, SP_DEVINFO_DATA* device) {
      EXPECT_EQ(given, list());
      EXPECT_EQ(function, DI_FUNCTION{DIF_PROPERTYCHANGE});
      EXPECT_EQ(device->DevInst, changed_device);
      calls.emplace_back("installer");
      return installer_error == ERROR_SUCCESS ? TRUE : failed<BOOL>(installer_error, FALSE);
    };
    return to;
  }

 private:
  static constexpr DEVINST FIRST_INSTANCE = 70;

  HDEVINFO list() { return this; }
  const Device& of(DEVINST instance) const { return devices.at(instance - FIRST_INSTANCE); }

  template <class Result>
  static Result failed(DWORD error, Result result) {
    SetLastError(error);
    return result;
  }

  BOOL read_property(const Device& device, DWORD property, BYTE* buffer, DWORD size,
                     DWORD* needed) {
    if (property_error != ERROR_SUCCESS) return failed<BOOL>(property_error, FALSE);
    EXPECT_TRUE(property == SPDRP_HARDWAREID || property == SPDRP_DEVICEDESC);
    std::wstring text = device.description;
    text += L'\0';
    if (property == SPDRP_HARDWAREID) text = device.hardware_ids + L'\0';
    if (text.size() == 1) return failed<BOOL>(ERROR_INVALID_DATA, FALSE);
    *needed = static_cast<DWORD>(text.size() * sizeof(wchar_t));
    const bool grows = size >= *needed && properties_grow > 0;
    if (grows) {
      --properties_grow;
      *needed = size + sizeof(wchar_t);
    }
    if (size < *needed) return failed<BOOL>(ERROR_INSUFFICIENT_BUFFER, FALSE);
    std::memcpy(buffer, text.data(), *needed);
    return TRUE;
  }

  int open_lists_ = 0;
};
