// The sound outputs as the multimedia device interfaces (MMDevice API) name them. Every call is
// made on a thread that is a member of COM.
#pragma once

#include <functional>
#include <string>

#include "control/windows/com.h"
// After what com.h includes.
#include <mmdeviceapi.h>

// The way to all devices, as CoCreateInstance gives it.
using MakeDeviceEnumerator = std::function<HRESULT(IMMDeviceEnumerator** out)>;
HRESULT make_device_enumerator(IMMDeviceEnumerator** out);

// The output that plays what asks for none in particular.
HRESULT default_output(IMMDeviceEnumerator& enumerator, IMMDevice** out);

// UTF-8, empty if it can't be read.
std::string device_id(IMMDevice& device);
std::string default_output_id(IMMDeviceEnumerator& enumerator);
