// The driver's settings file and folder with the system's own files and registry, and leases from
// end to end: the driver's pipe is a stand-in's, its device and which monitor is its own are
// records, and the monitor that is leased is the first of this computer's.
#include "capture/windows/vdd_driver.h"

#include <gmock/gmock.h>

#include "capture/vdd_control.h"
#include "capture/vdd_leases.h"
#include "control/windows/wide_text.h"
#include "tests/support/captured_log.h"
#include "tests/support/temp_directory.h"
#include "tests/support/windows/fake_devices.h"
#include "tests/support/windows/fake_displays.h"
#include "tests/support/windows/vdd_pipe_server.h"

using testing::ElementsAre;
using testing::HasSubstr;

namespace {

constexpr const char* SETTINGS =
    "<?xml version='1.0'?>\r\n<!-- mine -->\r\n<vdd_settings>\r\n"
    "  <monitors><count>1</count></monitors>\r\n"
    "  <resolutions>\r\n"
    "    <resolution><width>1920</width><height>1080</height>"
    "<refresh_rate>60</refresh_rate></resolution>\r\n"
    "  </resolutions>\r\n</vdd_settings>\r\n";

// ---- The settings file

class VddSettingsFile : public testing::Test {
 protected:
  std::string path(const char* name = "vdd_settings.xml") const {
    return to_utf8((directory / name).wstring());
  }
  std::string read(std::size_t limit = vdd_control::SETTINGS_LIMIT_BYTES) {
    std::string text = "unread";
    return driver.read_file(path(), limit, &text) ? text : "none: " + text;
  }

  const TempDirectory directory;
  WindowsVddDriver driver;
};

TEST_F(VddSettingsFile, IsReadByteForByte) {
  const std::string bytes("\xEF\xBB\xBF<a>\r\n\0\x1A</a>", 14);
  write_file(directory / "vdd_settings.xml", bytes);
  EXPECT_EQ(read(), bytes);
  write_file(directory / "vdd_settings.xml", "");
  EXPECT_EQ(read(), "");
}

TEST_F(VddSettingsFile, OneThatIsMissingOrTooLargeIsNotRead) {
  EXPECT_EQ(read(), "none: unread");
  write_file(directory / "vdd_settings.xml", "12345");
  EXPECT_EQ(read(5), "12345");
  EXPECT_EQ(read(4), "none: unread");
}

TEST_F(VddSettingsFile, CanBeReadWhileTheDriverHasItOpen) {
  write_file(directory / "vdd_settings.xml", "text");
  const Handle open = owned_file(
      CreateFileW((directory / "vdd_settings.xml").c_str(), GENERIC_READ | GENERIC_WRITE,
                  FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING, 0, nullptr));
  ASSERT_TRUE(open);
  EXPECT_EQ(read(), "text");
}

TEST_F(VddSettingsFile, IsReplacedWhole) {
  write_file(directory / "vdd_settings.xml", std::string(5000, 'x'));
  EXPECT_TRUE(vdd_control::write_settings(driver, path(), SETTINGS));
  EXPECT_EQ(read(), SETTINGS);
  EXPECT_EQ(entry_count(directory.path()), 1u);
}

TEST_F(VddSettingsFile, AFolderThatIsNotThereIsLoggedWithItsError) {
  const CapturedLog log;
  const std::string missing = path("no folder") + "\\vdd_settings.xml";
  EXPECT_FALSE(vdd_control::write_settings(driver, missing, SETTINGS));
  EXPECT_EQ(log.count("vdd: cannot write " + missing + ".lunderhaze-tmp (error 3)"), 1);
}

TEST_F(VddSettingsFile, OneThatCannotBeReplacedStaysAndLeavesNothingBeside) {
  const CapturedLog log;
  write_file(directory / "vdd_settings.xml", "old");
  {
    const Handle locked =
        owned_file(CreateFileW((directory / "vdd_settings.xml").c_str(), GENERIC_READ,
                               FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr));
    ASSERT_TRUE(locked);
    EXPECT_FALSE(vdd_control::write_settings(driver, path(), SETTINGS));
  }
  EXPECT_THAT(log.text(), HasSubstr("vdd: cannot replace " + path() + " (error "));
  EXPECT_EQ(read(), "old");
  EXPECT_EQ(entry_count(directory.path()), 1u);
}

// ---- What the registry says

constexpr const wchar_t* SOFTWARE_KEY = LR"(SOFTWARE\MikeTheTech\VirtualDisplayDriver)";

// While it lives, what this process sees of HKEY_LOCAL_MACHINE is a key of the test's own.
class OwnRegistry {
 public:
  OwnRegistry() {
    EXPECT_EQ(RegCreateKeyExW(HKEY_CURRENT_USER, PLACE, 0, nullptr, 0, KEY_ALL_ACCESS, nullptr,
                              key_.receive(), nullptr),
              ERROR_SUCCESS);
    EXPECT_EQ(RegOverridePredefKey(HKEY_LOCAL_MACHINE, key_.get()), ERROR_SUCCESS);
  }
  ~OwnRegistry() {
    RegOverridePredefKey(HKEY_LOCAL_MACHINE, nullptr);
    key_.reset();
    EXPECT_EQ(RegDeleteTreeW(HKEY_CURRENT_USER, PLACE), ERROR_SUCCESS);
  }
  OwnRegistry(const OwnRegistry&) = delete;
  OwnRegistry& operator=(const OwnRegistry&) = delete;

  void set_folder(const std::wstring& folder, DWORD type = REG_SZ) {
    EXPECT_EQ(RegSetKeyValueW(key_.get(), SOFTWARE_KEY, L"VDDPATH", type, folder.c_str(),
                              static_cast<DWORD>((folder.size() + 1) * sizeof(wchar_t))),
              ERROR_SUCCESS);
  }

 private:
  static constexpr const wchar_t* PLACE = LR"(Software\lunderhaze-test)";
  RegistryKey key_;
};

TEST(VddSettingsFolder, IsWhatTheDriverRegistered) {
  OwnRegistry registry;
  WindowsVddDriver driver;
  EXPECT_EQ(driver.settings_folder(), "");
  registry.set_folder(L"D:\\T\u00f6pfe");
  EXPECT_EQ(driver.settings_folder(), "D:\\T\xC3\xB6pfe");
  registry.set_folder(L"");
  EXPECT_EQ(driver.settings_folder(), "");
  const std::wstring long_one(2000, L'a');
  registry.set_folder(long_one);
  EXPECT_EQ(driver.settings_folder(), to_utf8(long_one));
}

TEST(VddSettingsFolder, AValueThatIsNoTextCountsAsNone) {
  OwnRegistry registry;
  registry.set_folder(L"ab", REG_BINARY);
  WindowsVddDriver driver;
  EXPECT_EQ(driver.settings_folder(), "");
}

TEST(VddSettingsFolder, WithoutOneTheFileIsInTheDriversUsualPlace) {
  OwnRegistry registry;
  WindowsVddDriver driver;
  EXPECT_EQ(vdd_control::inspect(driver).settings_path,
            R"(C:\VirtualDisplayDriver\vdd_settings.xml)");
}

TEST(VddElevation, IsWhatTheProcessesTokenSays) {
  Handle token;
  ASSERT_TRUE(OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, token.receive()));
  TOKEN_ELEVATION_TYPE type = {};
  DWORD size = 0;
  ASSERT_TRUE(GetTokenInformation(token.get(), TokenElevationType, &type, sizeof(type), &size));
  WindowsVddDriver driver;
  if (type != TokenElevationTypeDefault) {
    EXPECT_EQ(driver.elevated(), type == TokenElevationTypeFull);
    return;
  }
  // Without a second token, it is elevated that is an administrator's.
  BYTE sid[SECURITY_MAX_SID_SIZE];
  DWORD sid_size = sizeof(sid);
  ASSERT_TRUE(CreateWellKnownSid(WinBuiltinAdministratorsSid, nullptr, sid, &sid_size));
  BOOL member = FALSE;
  ASSERT_TRUE(CheckTokenMembership(nullptr, sid, &member));
  EXPECT_EQ(driver.elevated(), member != FALSE);
}

// ---- Leases

class VddLease : public testing::Test {
 protected:
  VddLease() {
    devices.devices = {
        {LR"(ROOT\DISPLAY\0000)", std::wstring(L"Root\\MttVDD\0", 12), L"A display"}};
    devices.installer_error = ERROR_ACCESS_DENIED;  // so that it is reloaded over its pipe
    displays.add_virtual(device);
    DisplayCalls on_this_computer = displays.record();
    on_this_computer.settings = EnumDisplaySettingsW;
    on_this_computer.change_settings = ChangeDisplaySettingsExW;
    driver = std::make_unique<WindowsVddDriver>(devices.record(), on_this_computer);
    before = *driver->current_settings(to_utf8(device));
    write_file(settings_file, SETTINGS);
    registry.set_folder(directory.path().wstring());
  }

  static std::wstring first_device() {
    DISPLAY_DEVICEW first = {};
    first.cb = sizeof(first);
    EXPECT_TRUE(EnumDisplayDevicesW(nullptr, 0, &first, 0));
    return first.DeviceName;
  }

  // Smaller than the current one, so that it can be no other monitor's doing.
  DisplayMode another_mode() const {
    for (const DisplayMode& mode : vdd_control::device_modes(*driver, to_utf8(device)))
      if (mode.width < before.mode.width && mode.height < before.mode.height && mode.width >= 640)
        return mode;
    ADD_FAILURE() << "the display has one mode only";
    return before.mode;
  }

  const TempDirectory directory;
  const std::filesystem::path settings_file = directory / "vdd_settings.xml";
  const std::wstring device = first_device();
  OwnRegistry registry;
  FakeDevices devices;
  FakeDisplays displays;
  const CapturedLog log;
  std::unique_ptr<WindowsVddDriver> driver;
  MonitorSettings before;
};

TEST_F(VddLease, ALeasedMonitorHasItsModeAndThenItsFormerOne) {
  const DisplayMode wanted = another_mode();
  LeasedVirtualDisplays leases(std::move(driver));
  DisplayInfo out;
  std::string reason;
  ASSERT_TRUE(
      leases.acquire(0, wanted.width, wanted.height, wanted.refresh, nullptr, &out, &reason))
      << reason;
  EXPECT_EQ(out.device, to_utf8(device));
  EXPECT_EQ(out.width, wanted.width);
  EXPECT_EQ(out.height, wanted.height);
  EXPECT_EQ(GetSystemMetrics(SM_CXSCREEN), wanted.width);
  EXPECT_EQ(GetSystemMetrics(SM_CYSCREEN), wanted.height);
  EXPECT_EQ(leases.status_line(), "Virtual display: ready, 1 monitor, 1 streamed");

  leases.restore_now();
  EXPECT_EQ(GetSystemMetrics(SM_CXSCREEN), before.mode.width);
  EXPECT_EQ(GetSystemMetrics(SM_CYSCREEN), before.mode.height);
  EXPECT_EQ(file_content(settings_file), SETTINGS);  // nothing had to be changed at the driver
}

TEST_F(VddLease, AModeThatIsNotOfferedGoesIntoTheFileAndTheDriverIsToldOverItsPipe) {
  std::string when_told;
  VddPipeServer::Manner manner;
  manner.on_message = [&](HANDLE, const std::string&) { when_told = file_content(settings_file); };
  manner.answers = {std::string(600, 'x')};
  const std::u16string command(u"SETDISPLAYCOUNT 1\0", 18);
  const std::string bytes(reinterpret_cast<const char*>(command.data()), 36);
  VddPipeServer server(manner);
  const bool tries_its_device_first = driver->elevated();
  LeasedVirtualDisplays leases(std::move(driver));
  DisplayInfo out;
  std::string reason;
  ASSERT_TRUE(leases.acquire(0, 611, 377, 60, nullptr, &out, &reason)) << reason;
  EXPECT_THAT(server.messages(), ElementsAre(bytes));
  EXPECT_THAT(when_told, HasSubstr("<width>611</width>"));
  EXPECT_THAT(when_told, HasSubstr("<!-- mine -->\r\n"));
  EXPECT_EQ(log.count("vdd: device state change 3 failed (error 5)"),
            tries_its_device_first ? 1 : 0);
  EXPECT_EQ(log.count("vdd: vdd_settings.xml: monitors 1 -> 1, mode 611x377@60 added"), 1);
  EXPECT_EQ(log.count("vdd: SETDISPLAYCOUNT 1 over the driver's pipe"), 1);
  EXPECT_EQ(log.count("doesn't offer 611x377@60"), 1);

  leases.restore_now();
  EXPECT_EQ(file_content(settings_file), SETTINGS);
  EXPECT_EQ(log.count("vdd: vdd_settings.xml restored (monitors 1)"), 1);
  EXPECT_EQ(entry_count(directory.path()), 1u);
  EXPECT_EQ(GetSystemMetrics(SM_CXSCREEN), before.mode.width);
  EXPECT_EQ(GetSystemMetrics(SM_CYSCREEN), before.mode.height);
}

TEST_F(VddLease, WithoutPipeAndRightsTheDriverIsUsedAsItIs) {
  LeasedVirtualDisplays leases(std::move(driver));
  DisplayInfo out;
  std::string reason;
  ASSERT_TRUE(leases.acquire(0, 611, 377, 60, nullptr, &out, &reason)) << reason;
  EXPECT_EQ(log.count("vdd: cannot reload the driver (no admin rights, no control pipe)"), 1);
  leases.restore_now();
  EXPECT_EQ(file_content(settings_file), SETTINGS);
}

// Every call of the system's is a record here, but for the look at whether the mode has come: it
// never does.
class VddLeaseCalls : public VddLease {
 protected:
  VddLeaseCalls() {
    displays.modes[device] = {FakeDisplays::mode(1280, 720, 60), FakeDisplays::mode(800, 600, 60)};
    displays.settings[{device, ENUM_CURRENT_SETTINGS}] = HAD;
    displays.settings[{device, ENUM_REGISTRY_SETTINGS}] = HAD;
    driver = std::make_unique<WindowsVddDriver>(devices.record(), displays.record());
  }

  static inline const DEVMODEW HAD = FakeDisplays::mode(1280, 720, 60, 32, {-1280, 7});
  DisplayInfo out;
  std::string reason;
};

TEST_F(VddLeaseCalls, AModeAndItsPlaceAreStoredThenAppliedAndGoBackTheSameWay) {
  LeasedVirtualDisplays leases(std::move(driver));
  const DesktopPoint place = {1920, 0};
  ASSERT_TRUE(leases.acquire(0, 800, 600, 60, &place, &out, &reason)) << reason;
  ASSERT_EQ(displays.stored.size(), 1u);
  EXPECT_EQ(displays.applied, 1);
  // As the monitor would then be.
  displays.settings[{device, ENUM_CURRENT_SETTINGS}] =
      FakeDisplays::mode(800, 600, 60, 32, {1920, 0});
  leases.restore_now();
  ASSERT_EQ(displays.stored.size(), 2u);
  EXPECT_EQ(displays.applied, 2);
  const DEVMODEW wanted[] = {FakeDisplays::mode(800, 600, 60, 32, {1920, 0}), HAD};
  for (int i = 0; i < 2; ++i) {
    const FakeDisplays::Change& change = displays.stored[static_cast<std::size_t>(i)];
    EXPECT_EQ(change.device, device);
    EXPECT_EQ(change.flags, DWORD{CDS_UPDATEREGISTRY | CDS_NORESET});
    EXPECT_EQ(change.mode.dmFields, 0x580020u);
    EXPECT_EQ(change.mode.dmPelsWidth, wanted[i].dmPelsWidth);
    EXPECT_EQ(change.mode.dmPelsHeight, wanted[i].dmPelsHeight);
    EXPECT_EQ(change.mode.dmDisplayFrequency, wanted[i].dmDisplayFrequency);
    EXPECT_EQ(change.mode.dmPosition.x, wanted[i].dmPosition.x);
    EXPECT_EQ(change.mode.dmPosition.y, wanted[i].dmPosition.y);
  }
  EXPECT_EQ(log.count("vdd: " + to_utf8(device) + " back to 1280x720@60: ok"), 1);
  EXPECT_THAT(devices.calls, testing::IsEmpty());
}

TEST_F(VddLeaseCalls, AModeThatIsRefusedIsNotAppliedAndOneThatIsNotAppliedIsNoLease) {
  LeasedVirtualDisplays leases(std::move(driver));
  displays.store_result = DISP_CHANGE_BADMODE;
  EXPECT_FALSE(leases.acquire(0, 800, 600, 60, nullptr, &out, &reason));
  EXPECT_EQ(reason, "could not set the virtual monitor's mode");
  EXPECT_EQ(log.count("-> 800x600@60: mode not supported"), 1);
  EXPECT_EQ(displays.applied, 0);
  displays.store_result = DISP_CHANGE_SUCCESSFUL;
  displays.apply_result = DISP_CHANGE_RESTART;
  EXPECT_FALSE(leases.acquire(0, 800, 600, 60, nullptr, &out, &reason));
  EXPECT_EQ(reason, "could not set the virtual monitor's mode");
  EXPECT_EQ(log.count("-> 800x600@60: needs a restart"), 1);
  EXPECT_EQ(displays.applied, 1);
  EXPECT_EQ(leases.status_line(), "Virtual display: ready, 1 monitor, 0 streamed");
}

// ---- This computer's own driver, if any

TEST(VirtualDisplaysOfTheSystem, WithoutADriverAreNotInstalled) {
  const auto displays = make_virtual_displays();
  EXPECT_EQ(displays->probe().describe(), "not installed");
  EXPECT_EQ(displays->status_line(), "Virtual display: driver not installed");
  EXPECT_FALSE(displays->usable());
  DisplayInfo out;
  std::string reason;
  EXPECT_FALSE(displays->acquire(0, 800, 600, 60, nullptr, &out, &reason));
  EXPECT_EQ(reason, "no virtual display driver installed (tray > Install virtual display driver)");
  displays->restore_now();
}

}  // namespace
