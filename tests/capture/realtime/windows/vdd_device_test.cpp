// How devices are found and changed, on records of the set-up API and the device manager, and with
// the system's own.
#include "capture/windows/vdd_device.h"

#include <gmock/gmock.h>
#include <initguid.h>
// After initguid.h, which makes it define them.
#include <devguid.h>

#include "capture/vdd_control.h"
#include "capture/windows/vdd_driver.h"
#include "tests/support/captured_log.h"
#include "tests/support/windows/fake_devices.h"

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

namespace {

using Change = VirtualDisplayDriver::AdapterChange;

const FakeDevices::Device GRAPHICS_CARD = {
    LR"(PCI\VEN_1\0)", std::wstring(L"PCI\\VEN_1&DEV_2\0PCI\\VEN_1\0", 26), L"A graphics card"};
const FakeDevices::Device DRIVER = {LR"(ROOT\DISPLAY\0000)", std::wstring(L"Root\\MttVDD\0", 12),
                                    L"Virtual Display Driver"};

class VddDevice : public testing::Test {
 protected:
  VddDevice() { fake.devices = {GRAPHICS_CARD, DRIVER}; }

  FakeDevices fake;
  const DeviceCalls calls = fake.record();
  const std::string id = R"(ROOT\DISPLAY\0000)";
};

// ---- Finding

TEST_F(VddDevice, DisplayAdaptersComeInOrderWithAllTheirNames) {
  const auto adapters = display_adapters(calls);
  EXPECT_TRUE(IsEqualGUID(fake.asked_class, GUID_DEVCLASS_DISPLAY));
  ASSERT_THAT(adapters, SizeIs(2));
  EXPECT_EQ(adapters[0].id, R"(PCI\VEN_1\0)");
  EXPECT_THAT(adapters[0].hardware_ids, ElementsAre(R"(PCI\VEN_1&DEV_2)", R"(PCI\VEN_1)"));
  EXPECT_EQ(adapters[0].description, "A graphics card");
  EXPECT_EQ(adapters[1].id, id);
  EXPECT_THAT(adapters[1].hardware_ids, ElementsAre(R"(Root\MttVDD)"));
  EXPECT_EQ(adapters[1].description, "Virtual Display Driver");
}

TEST_F(VddDevice, WithoutAListThereAreNone) {
  fake.no_list = true;
  EXPECT_THAT(display_adapters(calls), IsEmpty());
  EXPECT_FALSE(adapter_status(calls, id));
  const auto result = change_adapter(calls, id, Change::Enable);
  EXPECT_FALSE(result.ok);
  EXPECT_EQ(result.error, unsigned{ERROR_NO_SUCH_DEVINST});
}

TEST_F(VddDevice, APropertyThatIsMissingOrFailsIsEmpty) {
  fake.devices[1].hardware_ids.clear();
  fake.devices[0].description.clear();
  auto adapters = display_adapters(calls);
  EXPECT_EQ(adapters[0].description, "");
  EXPECT_THAT(adapters[0].hardware_ids, SizeIs(2));
  EXPECT_THAT(adapters[1].hardware_ids, IsEmpty());

  fake.property_error = ERROR_ACCESS_DENIED;
  adapters = display_adapters(calls);
  ASSERT_THAT(adapters, SizeIs(2));
  EXPECT_THAT(adapters[0].hardware_ids, IsEmpty());
  EXPECT_EQ(adapters[1].description, "");
}

TEST_F(VddDevice, APropertyThatGrowsBetweenTheQuestionsIsReadWhole) {
  fake.properties_grow = 3;
  EXPECT_THAT(display_adapters(calls)[0].hardware_ids,
              ElementsAre(R"(PCI\VEN_1&DEV_2)", R"(PCI\VEN_1)"));
}

TEST_F(VddDevice, ATextWithoutItsZeroIsReadToItsEnd) {
  fake.devices[1].hardware_ids = L"Root\\MttVDD";
  EXPECT_THAT(display_adapters(calls)[1].hardware_ids, ElementsAre(R"(Root\MttVDD)"));
}

TEST_F(VddDevice, AnIdThatCannotBeReadIsEmpty) {
  fake.no_ids = true;
  const auto adapters = display_adapters(calls);
  ASSERT_THAT(adapters, SizeIs(2));
  EXPECT_EQ(adapters[1].id, "");
}

// ---- Its status

TEST_F(VddDevice, ItsStatusIsTheDeviceManagers) {
  auto status = adapter_status(calls, id);
  ASSERT_TRUE(status);
  EXPECT_FALSE(status->has_problem);
  EXPECT_TRUE(status->started);

  fake.devices[1].status = DN_HAS_PROBLEM;
  fake.devices[1].problem = CM_PROB_DISABLED;
  status = adapter_status(calls, id);
  ASSERT_TRUE(status);
  EXPECT_TRUE(status->has_problem);
  EXPECT_EQ(status->problem, 22u);
  EXPECT_FALSE(status->started);
}

TEST_F(VddDevice, AStatusThatCannotBeReadIsNone) {
  fake.devices[1].status_result = CR_NO_SUCH_DEVNODE;
  EXPECT_FALSE(adapter_status(calls, id));
  EXPECT_TRUE(adapter_status(calls, R"(PCI\VEN_1\0)"));
  EXPECT_FALSE(adapter_status(calls, R"(PCI\VEN_1\1)"));
}

// ---- Changing it

TEST_F(VddDevice, AChangeIsOfTheWholeComputersPropertyChange) {
  for (const auto& [change, state] :
       {std::pair(Change::Enable, DWORD{DICS_ENABLE}), {Change::Restart, DWORD{DICS_PROPCHANGE}}}) {
    fake.calls.clear();
    EXPECT_TRUE(change_adapter(calls, id, change).ok);
    EXPECT_THAT(fake.calls, ElementsAre("params", "installer"));
    EXPECT_EQ(fake.change.ClassInstallHeader.cbSize, sizeof(SP_CLASSINSTALL_HEADER));
    EXPECT_EQ(fake.change.ClassInstallHeader.InstallFunction, DI_FUNCTION{DIF_PROPERTYCHANGE});
    EXPECT_EQ(fake.change.StateChange, state);
    EXPECT_EQ(fake.change.Scope, DWORD{DICS_FLAG_GLOBAL});
    EXPECT_EQ(fake.change.HwProfile, 0u);
    EXPECT_EQ(fake.changed_device, 71u);
  }
}

TEST_F(VddDevice, AnInstallerThatFailsSaysWhy) {
  fake.installer_error = ERROR_ACCESS_DENIED;
  const auto result = change_adapter(calls, id, Change::Restart);
  EXPECT_FALSE(result.ok);
  EXPECT_EQ(result.error, unsigned{ERROR_ACCESS_DENIED});
}

TEST_F(VddDevice, ParametersThatAreRefusedAreNotActedOn) {
  fake.params_error = ERROR_INVALID_PARAMETER;
  const auto result = change_adapter(calls, id, Change::Enable);
  EXPECT_FALSE(result.ok);
  EXPECT_EQ(result.error, unsigned{ERROR_INVALID_PARAMETER});
  EXPECT_THAT(fake.calls, ElementsAre("params"));
}

TEST_F(VddDevice, OneThatHasGoneIsNotChanged) {
  fake.devices.pop_back();
  const auto result = change_adapter(calls, id, Change::Enable);
  EXPECT_FALSE(result.ok);
  EXPECT_EQ(result.error, unsigned{ERROR_NO_SUCH_DEVINST});
  EXPECT_THAT(fake.calls, IsEmpty());
}

TEST_F(VddDevice, AFailedChangeIsLoggedWithItsNumbers) {
  const CapturedLog log;
  fake.installer_error = ERROR_ACCESS_DENIED;
  WindowsVddDriver driver(calls);
  EXPECT_FALSE(vdd_control::change_vdd_device(driver, Change::Restart));
  EXPECT_EQ(log.count("vdd: device state change 3 failed (error 5)"), 1);
}

// ---- The system's own

// A device of the class that its list holds until it goes.
class RegisteredDevice {
 public:
  RegisteredDevice(const wchar_t* hardware_id, const wchar_t* description)
      : list_(SetupDiCreateDeviceInfoList(&GUID_DEVCLASS_DISPLAY, nullptr)) {
    device_.cbSize = sizeof(device_);
    EXPECT_TRUE(SetupDiCreateDeviceInfoW(list_, L"Display", &GUID_DEVCLASS_DISPLAY, description,
                                         nullptr, DICD_GENERATE_ID, &device_))
        << GetLastError();
    std::wstring ids = hardware_id;
    ids.append(2, L'\0');
    EXPECT_TRUE(SetupDiSetDeviceRegistryPropertyW(
        list_, &device_, SPDRP_HARDWAREID, reinterpret_cast<const BYTE*>(ids.data()),
        static_cast<DWORD>(ids.size() * sizeof(wchar_t))));
    EXPECT_TRUE(SetupDiCallClassInstaller(DIF_REGISTERDEVICE, list_, &device_)) << GetLastError();
  }
  ~RegisteredDevice() {
    EXPECT_TRUE(SetupDiCallClassInstaller(DIF_REMOVE, list_, &device_));
    SetupDiDestroyDeviceInfoList(list_);
  }
  RegisteredDevice(const RegisteredDevice&) = delete;
  RegisteredDevice& operator=(const RegisteredDevice&) = delete;

 private:
  const HDEVINFO list_;
  SP_DEVINFO_DATA device_ = {};
};

TEST(VddDeviceOfTheSystem, IsFoundByItsHardwareId) {
  const DeviceCalls calls;
  const std::size_t before = display_adapters(calls).size();
  WindowsVddDriver driver;
  EXPECT_FALSE(vdd_control::inspect(driver).installed);
  {
    const RegisteredDevice device(LR"(ROOT\MttVDD)", L"Some display");
    const auto adapters = display_adapters(calls);
    EXPECT_THAT(adapters, SizeIs(before + 1));
    const VddState state = vdd_control::inspect(driver);
    EXPECT_TRUE(state.installed);
    EXPECT_TRUE(state.device_id.starts_with(R"(ROOT\DISPLAY\)")) << state.device_id;
    for (const auto& adapter : adapters)
      if (adapter.id == state.device_id) {
        EXPECT_THAT(adapter.hardware_ids, ElementsAre(R"(ROOT\MttVDD)"));
        EXPECT_EQ(adapter.description, "Some display");
      }
  }
  EXPECT_FALSE(vdd_control::inspect(driver).installed);
}

}  // namespace
