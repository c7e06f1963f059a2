// The muting's calls, in order and in content, on an output that is made up.
#include "streams/windows/wasapi_endpoints.h"

#include <gmock/gmock.h>

#include "streams/host_mute.h"
#include "tests/support/captured_log.h"
#include "tests/support/temp_directory.h"
#include "tests/support/windows/fake_sound_devices.h"

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

namespace {

constexpr GUID OUR_CHANGE = {
    0x6F1D5A52, 0x3C2B, 0x4E47, {0x9A, 0x51, 0x70, 0x61, 0x72, 0x73, 0x61, 0xA1}};
constexpr GUID NOBODYS_CHANGE = {};

class Notes final : public SoundEndpoints::Listener {
 public:
  void default_changed() override { notes.push_back("default"); }
  void mute_changed(const std::string& id, bool muted) override {
    notes.push_back((muted ? "muted " : "unmuted ") + id);
  }
  std::vector<std::string> notes;
};

class WasapiEndpointsTest : public testing::Test {
 protected:
  ~WasapiEndpointsTest() override {
    endpoints_.close();
    EXPECT_THAT(devices_.device_callbacks, IsEmpty());
    EXPECT_THAT(devices_.volume_callbacks, IsEmpty());
    EXPECT_THAT(devices_.stage.complaints(), IsEmpty());
  }

  void open() {
    std::string error;
    ASSERT_TRUE(endpoints_.open(&notes_, &error)) << error;
    EXPECT_EQ(
        devices_.stage.take_calls(),
        std::vector<std::string>{"IMMDeviceEnumerator::RegisterEndpointNotificationCallback"});
  }

  FakeSoundDevices devices_;
  Notes notes_;
  WasapiEndpoints endpoints_{devices_.maker()};
};

// ---- Asking and setting

TEST_F(WasapiEndpointsTest, WithoutDevicesItDoesNotOpenAndKnowsNothing) {
  WasapiEndpoints endpoints([](IMMDeviceEnumerator**) { return REGDB_E_CLASSNOTREG; });
  std::string error;
  EXPECT_FALSE(endpoints.open(&notes_, &error));
  EXPECT_EQ(error, "cannot create the device enumerator");
  EXPECT_EQ(endpoints.default_output(), "");
  EXPECT_EQ(endpoints.is_muted("speakers"), -1);
  EXPECT_FALSE(endpoints.can_mute("speakers"));
  EXPECT_FALSE(endpoints.set_mute("speakers", true));
}

TEST_F(WasapiEndpointsTest, TheDefaultOutputIsTheConsoles) {
  open();
  EXPECT_EQ(endpoints_.default_output(), "speakers");
  devices_.id = L"headset \u266a";
  EXPECT_EQ(endpoints_.default_output(), "headset \u266a");
  devices_.id.clear();
  EXPECT_EQ(endpoints_.default_output(), "");
  devices_.id = L"speakers";
  devices_.stage.fail<&IMMDevice::GetId>(E_OUTOFMEMORY);
  EXPECT_EQ(endpoints_.default_output(), "");
}

TEST_F(WasapiEndpointsTest, TellsWhetherAnOutputIsMuted) {
  open();
  EXPECT_EQ(endpoints_.is_muted("speakers"), 0);
  devices_.muted = true;
  EXPECT_EQ(endpoints_.is_muted("speakers"), 1);
  EXPECT_EQ(endpoints_.is_muted("no such thing"), -1);
}

// The recording is of what is mixed, ahead of the mute.
TEST_F(WasapiEndpointsTest, WhateverCanBeAskedCanBeMuted) {
  open();
  EXPECT_TRUE(endpoints_.can_mute("speakers"));
  EXPECT_FALSE(endpoints_.can_mute("no such thing"));
  EXPECT_FALSE(devices_.muted);
}

TEST_F(WasapiEndpointsTest, AMuteIsMarkedAsThisProgramsOwn) {
  open();
  EXPECT_TRUE(endpoints_.set_mute("speakers", true));
  EXPECT_TRUE(devices_.muted);
  EXPECT_TRUE(devices_.mute_context == OUR_CHANGE);
  devices_.mute_context = NOBODYS_CHANGE;
  EXPECT_TRUE(endpoints_.set_mute("speakers", false));
  EXPECT_FALSE(devices_.muted);
  EXPECT_TRUE(devices_.mute_context == OUR_CHANGE);
  EXPECT_FALSE(endpoints_.set_mute("no such thing", true));
}

TEST_F(WasapiEndpointsTest, AnOutputIsLookedUpOnceAndWatchedFromThenOn) {
  open();
  endpoints_.is_muted("speakers");
  endpoints_.set_mute("speakers", true);
  endpoints_.is_muted("speakers");
  EXPECT_THAT(devices_.stage.take_calls(),
              ElementsAre("IMMDeviceEnumerator::GetDevice", "IMMDevice::Activate",
                          "IAudioEndpointVolume::RegisterControlChangeNotify",
                          "IAudioEndpointVolume::GetMute", "IAudioEndpointVolume::SetMute",
                          "IAudioEndpointVolume::GetMute"));
  EXPECT_THAT(devices_.volume_callbacks, SizeIs(1));
}

TEST_F(WasapiEndpointsTest, AStepThatFailsLeavesNothingBehindAndIsTakenAnewNextTime) {
  open();
  for (const char* step : {"IMMDeviceEnumerator::GetDevice", "IMMDevice::Activate",
                           "IAudioEndpointVolume::RegisterControlChangeNotify"}) {
    for (const HRESULT result : {E_FAIL, AUDCLNT_E_DEVICE_INVALIDATED}) {
      devices_.stage.fail(step, result);
      EXPECT_EQ(endpoints_.is_muted("speakers"), -1) << step;
      devices_.stage.fail(step, result);
      EXPECT_FALSE(endpoints_.set_mute("speakers", true)) << step;
      EXPECT_EQ(devices_.volume.references(), 0) << step;
    }
  }
  EXPECT_FALSE(devices_.muted);
  EXPECT_EQ(endpoints_.is_muted("speakers"), 0);
}

TEST_F(WasapiEndpointsTest, AVolumeThatFailsCannotTell) {
  open();
  devices_.stage.fail<&IAudioEndpointVolume::GetMute>(E_FAIL);
  EXPECT_EQ(endpoints_.is_muted("speakers"), -1);
  devices_.stage.fail<&IAudioEndpointVolume::SetMute>(E_ACCESSDENIED);
  EXPECT_FALSE(endpoints_.set_mute("speakers", true));
  EXPECT_EQ(devices_.stage.count("IMMDeviceEnumerator::GetDevice"), 1);
}

TEST_F(WasapiEndpointsTest, AnOutputThatWasPulledIsLookedUpAnew) {
  open();
  endpoints_.is_muted("speakers");
  devices_.stage.fail<&IAudioEndpointVolume::GetMute>(AUDCLNT_E_DEVICE_INVALIDATED);
  EXPECT_EQ(endpoints_.is_muted("speakers"), -1);
  EXPECT_THAT(devices_.volume_callbacks, IsEmpty());
  devices_.stage.fail<&IAudioEndpointVolume::SetMute>(AUDCLNT_E_DEVICE_INVALIDATED);
  EXPECT_FALSE(endpoints_.set_mute("speakers", false));
  EXPECT_EQ(endpoints_.is_muted("speakers"), 0);
  EXPECT_EQ(devices_.stage.count("IMMDeviceEnumerator::GetDevice"), 3);
  EXPECT_THAT(devices_.volume_callbacks, SizeIs(1));
}

// ---- News

TEST_F(WasapiEndpointsTest, OfNewDefaultsOnlyTheConsolesOutputCounts) {
  open();
  ASSERT_THAT(devices_.device_callbacks, SizeIs(1));
  IMMNotificationClient& callback = *devices_.device_callbacks[0].Get();
  for (const EDataFlow flow : {eRender, eCapture, eAll})
    for (const ERole role : {eConsole, eMultimedia, eCommunications})
      EXPECT_EQ(callback.OnDefaultDeviceChanged(flow, role, L"headset"), S_OK);
  EXPECT_EQ(callback.OnDeviceAdded(L"headset"), S_OK);
  EXPECT_EQ(callback.OnDeviceRemoved(L"headset"), S_OK);
  EXPECT_EQ(callback.OnDeviceStateChanged(L"headset", DEVICE_STATE_UNPLUGGED), S_OK);
  EXPECT_EQ(callback.OnPropertyValueChanged(L"headset", PROPERTYKEY{}), S_OK);
  EXPECT_THAT(notes_.notes, ElementsAre("default"));
}

TEST_F(WasapiEndpointsTest, WhatOthersMuteIsToldAndWhatThisProgramMutesIsNot) {
  open();
  endpoints_.is_muted("speakers");
  devices_.tell_volume(true, OUR_CHANGE);
  EXPECT_THAT(notes_.notes, IsEmpty());
  devices_.tell_volume(false, NOBODYS_CHANGE);
  devices_.tell_volume(true, NOBODYS_CHANGE);
  EXPECT_THAT(notes_.notes, ElementsAre("unmuted speakers", "muted speakers"));
  EXPECT_EQ(devices_.volume_callbacks[0]->OnNotify(nullptr), E_INVALIDARG);
}

TEST_F(WasapiEndpointsTest, CallbacksThatTheSystemKeepsReachNobodyOnceClosed) {
  open();
  endpoints_.is_muted("speakers");
  const auto volume_callback = devices_.volume_callbacks[0];
  const auto device_callback = devices_.device_callbacks[0];
  devices_.stage.take_calls();
  endpoints_.close();
  EXPECT_THAT(devices_.stage.take_calls(),
              ElementsAre("IAudioEndpointVolume::UnregisterControlChangeNotify",
                          "IMMDeviceEnumerator::UnregisterEndpointNotificationCallback"));
  AUDIO_VOLUME_NOTIFICATION_DATA news{};
  EXPECT_EQ(volume_callback->OnNotify(&news), S_OK);
  EXPECT_EQ(device_callback->OnDefaultDeviceChanged(eRender, eConsole, L"x"), S_OK);
  EXPECT_THAT(notes_.notes, IsEmpty());
  // This test is their last user.
  volume_callback->AddRef();
  EXPECT_EQ(volume_callback->Release(), 1U);
  device_callback->AddRef();
  EXPECT_EQ(device_callback->Release(), 1U);
}

TEST_F(WasapiEndpointsTest, ACallbackThatIsRefusedIsNotTakenBackAndTheRestWorks) {
  devices_.stage.fail<&IMMDeviceEnumerator::RegisterEndpointNotificationCallback>(E_OUTOFMEMORY);
  open();
  EXPECT_EQ(endpoints_.is_muted("speakers"), 0);
  endpoints_.close();
  EXPECT_EQ(devices_.stage.count("IMMDeviceEnumerator::UnregisterEndpointNotificationCallback"), 0);
}

TEST_F(WasapiEndpointsTest, ACallbackIsWhatItIsRegisteredAsAndNothingElse) {
  open();
  IMMNotificationClient& callback = *devices_.device_callbacks[0].Get();
  ComPtr<IUnknown> unknown;
  EXPECT_EQ(callback.QueryInterface(IID_PPV_ARGS(&unknown)), S_OK);
  ComPtr<IMMNotificationClient> same;
  EXPECT_EQ(callback.QueryInterface(IID_PPV_ARGS(&same)), S_OK);
  EXPECT_EQ(same.Get(), &callback);
  void* other = &callback;
  EXPECT_EQ(callback.QueryInterface(__uuidof(IAudioEndpointVolumeCallback), &other), E_NOINTERFACE);
  EXPECT_EQ(other, nullptr);
  EXPECT_EQ(callback.QueryInterface(__uuidof(IUnknown), nullptr), E_POINTER);
}

TEST_F(WasapiEndpointsTest, CanBeOpenedAgain) {
  open();
  EXPECT_EQ(endpoints_.is_muted("speakers"), 0);
  endpoints_.close();
  devices_.stage.take_calls();
  open();
  EXPECT_EQ(endpoints_.is_muted("speakers"), 0);
}

// ---- With the service around it, whose steps run here

TEST_F(WasapiEndpointsTest, TheServiceMutesWhileStreamingAndHonoursTheUsersUnmute) {
  const CapturedLog log;
  const TempDirectory directory;
  HostMute mute(std::make_unique<WasapiEndpoints>(devices_.maker()), directory.path());
  mute.prepare(false);
  mute.step();
  mute.set_streaming(true);
  mute.step();
  EXPECT_TRUE(devices_.muted);
  EXPECT_EQ(log.count("audio: muted speakers while streaming"), 1);
  devices_.tell_volume(true, OUR_CHANGE);
  mute.step();
  EXPECT_EQ(mute.status_line(), "This PC's speakers are muted while streaming");

  devices_.muted = false;
  devices_.tell_volume(false, NOBODYS_CHANGE);
  mute.step();
  EXPECT_EQ(log.count("audio: speakers was unmuted by the user during the session; not muting it "
                      "again until the client reconnects"),
            1);
  EXPECT_EQ(mute.status_line(), "This PC's speakers: unmuted by you");
  EXPECT_FALSE(devices_.muted);
  mute.set_streaming(false);
  mute.shutdown();
  mute.step();
  EXPECT_FALSE(std::filesystem::exists(directory / "muted-endpoints.txt"));
}

// ---- The system's own

TEST(WasapiEndpointsSystem, ItsDefaultOutputCanBeAskedAboutWhereThereIsOne) {
  Notes notes;
  WasapiEndpoints endpoints;
  std::string error;
  ASSERT_TRUE(endpoints.open(&notes, &error)) << error;
  ComPtr<IMMDeviceEnumerator> enumerator;
  ASSERT_EQ(make_device_enumerator(&enumerator), S_OK);
  ComPtr<IMMDevice> device;
  const bool exists = SUCCEEDED(default_output(*enumerator.Get(), &device));
  EXPECT_EQ(endpoints.default_output().empty(), !exists);
  EXPECT_EQ(endpoints.is_muted(endpoints.default_output()), exists ? 0 : -1);
  EXPECT_EQ(endpoints.is_muted("no such thing"), -1);
}

}  // namespace
