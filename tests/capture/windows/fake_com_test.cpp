// That the stand-ins for COM objects see what is done wrong to them.
#include "tests/support/windows/fake_com.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "capture/windows/direct3d.h"

namespace {

using fake_com::Object;
using fake_com::Stage;
using testing::ElementsAre;
using testing::IsEmpty;

class FakeCom : public testing::Test {
 protected:
  ID3D11Device* reference() {
    ID3D11Device* device = nullptr;
    object_.give(&device);
    return device;
  }
  Stage stage_;
  Object& object_{stage_.make<ID3D11Device>("device")};
};

TEST_F(FakeCom, CallsReachTheBehaviourOfTheirMethodWithAllArguments) {
  object_.on<&ID3D11Device::CheckFormatSupport>([](DXGI_FORMAT format, UINT* support) {
    *support = format;
    return S_OK;
  });
  ID3D11Device* device = reference();
  UINT support = 0;
  EXPECT_EQ(device->CheckFormatSupport(DXGI_FORMAT_NV12, &support), S_OK);
  EXPECT_EQ(support, static_cast<UINT>(DXGI_FORMAT_NV12));
  device->Release();
  EXPECT_THAT(stage_.take_calls(), ElementsAre("ID3D11Device::CheckFormatSupport"));
  EXPECT_THAT(stage_.complaints(), IsEmpty());
}

TEST_F(FakeCom, TheLastMethodOfTheLongestInterfaceIsFound) {
  Object& context = stage_.make<ID3D11VideoContext1, ID3D11VideoContext>("context");
  bool called = false;
  context.on<&ID3D11VideoContext1::VideoProcessorGetBehaviorHints>(
      [&](ID3D11VideoProcessor*, UINT width, UINT, DXGI_FORMAT, UINT,
          const D3D11_VIDEO_PROCESSOR_STREAM_BEHAVIOR_HINT*, UINT* out) {
        called = true;
        *out = width;
        return S_OK;
      });
  ComPtr<ID3D11VideoContext1> pointer;
  context.give(pointer.ReleaseAndGetAddressOf());
  UINT out = 0;
  pointer->VideoProcessorGetBehaviorHints(nullptr, 12, 0, DXGI_FORMAT_UNKNOWN, 0, nullptr, &out);
  EXPECT_TRUE(called);
  EXPECT_EQ(out, 12u);
}

TEST_F(FakeCom, QueryInterfaceAnswersWhatItWasToldTo) {
  Object& other = stage_.make<IDXGIDevice>("other");
  object_.answer<IDXGIDevice>(other);
  ComPtr<ID3D11Device> device(reference());
  device->Release();  // the pointer has taken one of its own
  ComPtr<IDXGIDevice> dxgi;
  EXPECT_EQ(device.As(&dxgi), S_OK);
  EXPECT_EQ(&Object::of(dxgi.Get()), &other);
  ComPtr<ID3D11VideoDevice> video;
  EXPECT_EQ(device.As(&video), E_NOINTERFACE);
  EXPECT_EQ(video.Get(), nullptr);
  dxgi.Reset();
  device.Reset();
  EXPECT_THAT(stage_.complaints(), IsEmpty());
}

TEST_F(FakeCom, AMethodWithoutBehaviourIsAViolation) {
  ID3D11Device* device = reference();
  EXPECT_EQ(device->GetDeviceRemovedReason(), E_UNEXPECTED);
  device->Release();
  EXPECT_THAT(stage_.complaints(),
              ElementsAre(testing::StartsWith("unexpected call of device, method ")));
}

TEST_F(FakeCom, ReferencesThatAreKeptAndThoseGivenBackTwiceAreSeen) {
  reference();
  EXPECT_THAT(stage_.complaints(), ElementsAre("device: references held: 1"));
  object_.as<ID3D11Device>()->Release();
  EXPECT_THAT(stage_.complaints(), IsEmpty());
  object_.as<ID3D11Device>()->Release();
  EXPECT_THAT(stage_.complaints(), ElementsAre("device: released once too often"));
}

TEST_F(FakeCom, ACallAfterTheLastReleaseIsAViolation) {
  object_.on<&ID3D11Device::GetDeviceRemovedReason>([] { return S_OK; });
  ID3D11Device* device = reference();
  device->Release();
  device->GetDeviceRemovedReason();
  EXPECT_THAT(stage_.complaints(),
              ElementsAre("ID3D11Device::GetDeviceRemovedReason of device after its end"));
}

TEST_F(FakeCom, AnInjectedFailureComesAsOftenAsAskedAndIsMissedIfItDoesNot) {
  object_.on<&ID3D11Device::GetDeviceRemovedReason>([] { return S_OK; });
  stage_.fail<&ID3D11Device::GetDeviceRemovedReason>(DXGI_ERROR_DEVICE_HUNG, 2);
  ID3D11Device* device = reference();
  EXPECT_EQ(device->GetDeviceRemovedReason(), DXGI_ERROR_DEVICE_HUNG);
  EXPECT_EQ(device->GetDeviceRemovedReason(), DXGI_ERROR_DEVICE_HUNG);
  EXPECT_EQ(device->GetDeviceRemovedReason(), S_OK);
  device->Release();
  EXPECT_THAT(stage_.complaints(), IsEmpty());
  stage_.fail<&ID3D11Device::CreateTexture2D>(E_OUTOFMEMORY);
  EXPECT_THAT(stage_.complaints(), ElementsAre("never failed: ID3D11Device::CreateTexture2D"));
}

}  // namespace
