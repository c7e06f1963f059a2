// A display configuration as records behind the system's calls: active paths, each from a source
// that the desktop knows to a monitor, with the settings of each source. A test says what there is
// and what fails.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <string>
#include <vector>

#include "capture/windows/vdd_monitors.h"

// Outlives the calls that it makes.
class FakeDisplays {
 public:
  struct Path {
    std::wstring monitor_path;
    std::wstring device;
    LONG target_result = ERROR_SUCCESS;
    LONG source_result = ERROR_SUCCESS;
  };

  std::vector<Path> paths;
  std::map<std::wstring, std::vector<DEVMODEW>> modes;          // by device, as it offers them
  std::map<std::pair<std::wstring, DWORD>, DEVMODEW> settings;  // by device and which

  // ---- what fails
  LONG sizes_result = ERROR_SUCCESS;
  std::vector<LONG> query_results;  // of the first queries; the others succeed
  LONG store_result = DISP_CHANGE_SUCCESSFUL;
  LONG apply_result = DISP_CHANGE_SUCCESSFUL;

  // ---- what was asked for
  int size_questions = 0;
  int queries = 0;
  struct Change {
    std::wstring device;
    DEVMODEW mode = {};
    DWORD flags = 0;
  };
  std::vector<Change> stored;
  int applied = 0;
  std::vector<UINT32> configured;  // flags

  // A path of the driver's monitor.
  void add_virtual(const std::wstring& device) {
    paths.push_back({LR"(\\?\DISPLAY#MTT1337#1&28a6823a&2&UID256#{e6f07b5f})", device});
  }

  DisplayCalls record() {
    DisplayCalls to;
    to.buffer_sizes = [this](UINT32 flags, UINT32* path_count, UINT32* mode_count) {
      EXPECT_EQ(flags, UINT32{QDC_ONLY_ACTIVE_PATHS});
      ++size_questions;
      // Room for one more than there will be, as the system may say.
      *path_count = static_cast<UINT32>(paths.size()) + 1;
      *mode_count = static_cast<UINT32>(2 * paths.size());
      return sizes_result;
    };
    to.query = [this](UINT32 flags, UINT32* path_count, DISPLAYCONFIG_PATH_INFO* to_paths,
                      UINT32* mode_count, DISPLAYCONFIG_MODE_INFO*, DISPLAYCONFIG_TOPOLOGY_ID* id) {
      EXPECT_EQ(flags, UINT32{QDC_ONLY_ACTIVE_PATHS});
      EXPECT_EQ(id, nullptr);  // it may be asked for with another flag alone
      EXPECT_EQ(*path_count, paths.size() + 1);
      EXPECT_EQ(*mode_count, 2 * paths.size());
      const auto index = static_cast<std::size_t>(queries++);
      if (index < query_results.size() && query_results[index] != ERROR_SUCCESS)
        return query_results[index];
      for (UINT32 i = 0; i < paths.size(); ++i) {
        to_paths[i].sourceInfo.adapterId = {i + 1, 7};
        to_paths[i].sourceInfo.id = i + 100;
        to_paths[i].targetInfo.adapterId = {i + 1, 8};
        to_paths[i].targetInfo.id = i + 200;
      }
      *path_count = static_cast<UINT32>(paths.size());
      return LONG{ERROR_SUCCESS};
    };
    to.device_info = [this](DISPLAYCONFIG_DEVICE_INFO_HEADER* request) { return name(request); };
    to.set_config = [this](UINT32 path_count, DISPLAYCONFIG_PATH_INFO* given_paths,
                           UINT32 mode_count, DISPLAYCONFIG_MODE_INFO* given_modes, UINT32 flags) {
      EXPECT_EQ(path_count, 0u);
      EXPECT_EQ(mode_count, 0u);
      EXPECT_EQ(given_paths, nullptr);
      EXPECT_EQ(given_modes, nullptr);
      configured.push_back(flags);
      return LONG{ERROR_SUCCESS};
    };
    to.settings = [this](const wchar_t* device, DWORD index, DEVMODEW* mode) {
      EXPECT_EQ(mode->dmSize, sizeof(DEVMODEW));
      EXPECT_EQ(mode->dmDriverExtra, 0);
      if (index == ENUM_CURRENT_SETTINGS || index == ENUM_REGISTRY_SETTINGS) {
        const auto found = settings.find({device, index});
        if (found == settings.end()) return FALSE;
        *mode = found->second;
        return TRUE;
      }
      const std::vector<DEVMODEW>& offered = modes[device];
      if (index >= offered.size()) return FALSE;
      *mode = offered[index];
      return TRUE;
    };
    to.change_settings = [this](const wchar_t* device, DEVMODEW* mode, HWND window, DWORD flags,
                                void* parameter) {
      EXPECT_EQ(window, nullptr);
      EXPECT_EQ(parameter, nullptr);
      if (!device) {
        EXPECT_EQ(mode, nullptr);
        EXPECT_EQ(flags, 0u);
        ++applied;
        return apply_result;
      }
      stored.push_back({device, *mode, flags});
      return store_result;
    };
    return to;
  }

  static DEVMODEW mode(DWORD width, DWORD height, DWORD hz, DWORD bits = 32, POINTL at = {}) {
    DEVMODEW made = {};
    made.dmSize = sizeof(made);
    made.dmPelsWidth = width;
    made.dmPelsHeight = height;
    made.dmDisplayFrequency = hz;
    made.dmBitsPerPel = bits;
    made.dmPosition = at;
    return made;
  }

 private:
  // Which path is asked for, by the ids that query() gave out.
  LONG name(DISPLAYCONFIG_DEVICE_INFO_HEADER* request) const {
    const bool target = request->type == DISPLAYCONFIG_DEVICE_INFO_GET_TARGET_NAME;
    const UINT32 index = request->id - (target ? 200 : 100);
    if (index >= paths.size() || request->adapterId.LowPart != index + 1 ||
        request->adapterId.HighPart != (target ? 8 : 7)) {
      ADD_FAILURE() << "no such path: " << request->id;
      return ERROR_INVALID_PARAMETER;
    }
    const Path& path = paths[index];
    if (target) {
      auto* const to = reinterpret_cast<DISPLAYCONFIG_TARGET_DEVICE_NAME*>(request);
      EXPECT_EQ(request->size, sizeof(*to));
      std::copy_n(path.monitor_path.c_str(), path.monitor_path.size() + 1, to->monitorDevicePath);
      return path.target_result;
    }
    EXPECT_EQ(request->type, DISPLAYCONFIG_DEVICE_INFO_GET_SOURCE_NAME);
    auto* const to = reinterpret_cast<DISPLAYCONFIG_SOURCE_DEVICE_NAME*>(request);
    EXPECT_EQ(request->size, sizeof(*to));
    std::copy_n(path.device.c_str(), path.device.size() + 1, to->viewGdiDeviceName);
    return path.source_result;
  }
};
