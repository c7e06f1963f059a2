// Devices of the display adapter class, as the set-up API and the device manager have them.
// Stateless, any thread. Strings are UTF-8. The calls of the system stand in a record, so that a
// test can write down what they are given and say what comes of them.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "capture/vdd_driver.h"
#include "control/windows/handles.h"
// After what handles.h includes.
#include <cfgmgr32.h>
#include <setupapi.h>

struct DeviceCalls {
  std::function<HDEVINFO(const GUID* of_class, const wchar_t* enumerator, HWND, DWORD flags)>
      class_devices = SetupDiGetClassDevsW;
  std::function<BOOL(HDEVINFO, DWORD index, SP_DEVINFO_DATA*)> device_info = SetupDiEnumDeviceInfo;
  std::function<BOOL(HDEVINFO)> destroy_list = SetupDiDestroyDeviceInfoList;
  std::function<BOOL(HDEVINFO, SP_DEVINFO_DATA*, DWORD property, DWORD* type, BYTE* buffer,
                     DWORD size_bytes, DWORD* needed_bytes)>
      registry_property = SetupDiGetDeviceRegistryPropertyW;
  std::function<BOOL(HDEVINFO, SP_DEVINFO_DATA*, wchar_t* id, DWORD size, DWORD* needed)>
      instance_id = SetupDiGetDeviceInstanceIdW;
  std::function<BOOL(HDEVINFO, SP_DEVINFO_DATA*, SP_CLASSINSTALL_HEADER*, DWORD size_bytes)>
      set_install_params = SetupDiSetClassInstallParamsW;
  std::function<BOOL(DI_FUNCTION, HDEVINFO, SP_DEVINFO_DATA*)> call_installer =
      SetupDiCallClassInstaller;
  std::function<CONFIGRET(ULONG* status, ULONG* problem, DEVINST, ULONG flags)> status =
      CM_Get_DevNode_Status;
};

// The present ones, in the system's order.
std::vector<VirtualDisplayDriver::Adapter> display_adapters(const DeviceCalls& calls);

// `id`: an Adapter's. Nothing when there is no such device, or the system can't say.
std::optional<VirtualDisplayDriver::AdapterStatus> adapter_status(const DeviceCalls& calls,
                                                                  const std::string& id);
VirtualDisplayDriver::Result change_adapter(const DeviceCalls& calls, const std::string& id,
                                            VirtualDisplayDriver::AdapterChange change);
