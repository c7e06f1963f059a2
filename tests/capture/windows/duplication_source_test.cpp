// Duplication call by call: what is asked of the system in which order, and which result each
// answer becomes.
#include <gmock/gmock.h>

#include <vector>

#include "capture/windows/duplication_source.h"
#include "connection/clock.h"
#include "tests/capture/windows/duplication_fixture.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

LONGLONG ticks_of_us(LONGLONG us) {
  LARGE_INTEGER frequency;
  QueryPerformanceFrequency(&frequency);
  return us * frequency.QuadPart / 1'000'000;
}

class DuplicationOpen : public DuplicationTest {};
class DuplicationSubscribe : public DuplicationTest {};
class DuplicationAcquire : public DuplicationTest {};
class DuplicationPointer : public DuplicationTest {};

TEST_F(DuplicationOpen, IsANotifyingGpuSource) {
  EXPECT_STREQ(source_->traits().backend, "DDA GPU");
  EXPECT_TRUE(source_->traits().notifying);
  EXPECT_TRUE(source_->traits().gpu);
  EXPECT_FALSE(source_->has_picture());
  EXPECT_FALSE(source_->converter_ready());
  EXPECT_EQ(source_->device(), nullptr);
}

TEST_F(DuplicationOpen, MakesTheDeviceOnTheAdapterOfTheDisplay) {
  ASSERT_TRUE(open());
  EXPECT_THAT(
      gpu_.stage.take_calls(),
      ElementsAre("CreateDXGIFactory1", "IDXGIFactory1::EnumAdapters1", "IDXGIAdapter::GetDesc",
                  "IDXGIFactory1::EnumAdapters1", "IDXGIAdapter::GetDesc",
                  "IDXGIAdapter::EnumOutputs", "IDXGIOutput::GetDesc", "IDXGIAdapter::EnumOutputs",
                  "IDXGIOutput::GetDesc", "D3D11CreateDevice",
                  "ID3D10Multithread::SetMultithreadProtected",
                  "IDXGIDevice::SetGPUThreadPriority"));
  ASSERT_EQ(gpu_.device_requests.size(), 1u);
  const FakeDirect3d::DeviceRequest& request = gpu_.device_requests[0];
  EXPECT_EQ(request.adapter, "adapter");
  EXPECT_EQ(request.driver, D3D_DRIVER_TYPE_UNKNOWN);
  EXPECT_EQ(request.flags, 0x820u);
  EXPECT_THAT(request.levels, ElementsAre(D3D_FEATURE_LEVEL_11_1, D3D_FEATURE_LEVEL_11_0));
  EXPECT_EQ(request.sdk_version, static_cast<UINT>(D3D11_SDK_VERSION));
  EXPECT_TRUE(gpu_.multithread_protected);
  EXPECT_EQ(gpu_.gpu_priority, 7);
  EXPECT_NE(source_->device(), nullptr);
  EXPECT_TRUE(source_->alive());
}

TEST_F(DuplicationOpen, FactoryThatFailsIsSilent) {
  gpu_.stage.fail("CreateDXGIFactory1", E_FAIL);
  EXPECT_FALSE(open());
  EXPECT_EQ(log_.count("video: "), 0);
}

TEST_F(DuplicationOpen, DisplayOfNoAdapterIsNamed) {
  display_.adapter_luid_high = 5;
  EXPECT_FALSE(open());
  EXPECT_EQ(log_.count("video: no DXGI output for the display"), 1);
  EXPECT_THAT(gpu_.device_requests, IsEmpty());
}

TEST_F(DuplicationOpen, LowHalfOfTheIdentityCountsToo) {
  display_.adapter_luid_low = 6;
  EXPECT_FALSE(open());
  EXPECT_EQ(log_.count("video: no DXGI output for the display"), 1);
}

TEST_F(DuplicationOpen, DeviceNameIsComparedExactly) {
  display_.device = "\\\\.\\Display2";
  EXPECT_FALSE(open());
  EXPECT_EQ(log_.count("video: no DXGI output for the display"), 1);
}

TEST_F(DuplicationOpen, AdapterAndOutputThatDoNotDescribeThemselvesArePassedBy) {
  gpu_.stage.fail<&IDXGIAdapter::GetDesc>(E_FAIL);
  gpu_.stage.fail<&IDXGIOutput::GetDesc>(E_FAIL);
  EXPECT_TRUE(open());
}

TEST_F(DuplicationOpen, OutputWithoutDuplicationIsNone) {
  gpu_.output.deny<IDXGIOutput1>();
  EXPECT_FALSE(open());
  EXPECT_EQ(log_.count("video: no DXGI output for the display"), 1);
}

TEST_F(DuplicationOpen, DeviceThatFailsIsLoggedWithItsCode) {
  gpu_.stage.fail("D3D11CreateDevice", DXGI_ERROR_UNSUPPORTED);
  EXPECT_FALSE(open());
  EXPECT_EQ(log_.count("video: D3D11CreateDevice failed (0x887a0004)"), 1);
}

TEST_F(DuplicationOpen, ProtectionAndPriorityMayBeMissing) {
  gpu_.context.deny<ID3D10Multithread>();
  gpu_.device.deny<IDXGIDevice>();
  EXPECT_TRUE(open());
  EXPECT_FALSE(gpu_.multithread_protected);
  EXPECT_EQ(gpu_.gpu_priority, 0);
}

TEST_F(DuplicationOpen, FailureOfThePriorityDoesNotMatter) {
  gpu_.stage.fail<&IDXGIDevice::SetGPUThreadPriority>(E_ACCESSDENIED);
  EXPECT_TRUE(open());
}

TEST_F(DuplicationSubscribe, AsksForBgraAndReadsTheOutputsPlaceAgain) {
  ASSERT_TRUE(open());
  gpu_.stage.take_calls();
  EXPECT_FALSE(source_->subscribed());
  ASSERT_TRUE(subscribe());
  EXPECT_TRUE(source_->subscribed());
  EXPECT_THAT(gpu_.stage.take_calls(),
              ElementsAre("IDXGIOutput5::DuplicateOutput1", "IDXGIOutputDuplication::GetDesc",
                          "IDXGIOutput::GetDesc"));
  EXPECT_THAT(gpu_.duplication_formats, ElementsAre(DXGI_FORMAT_B8G8R8A8_UNORM));
  EXPECT_EQ(display_.left, 1920);
  EXPECT_EQ(display_.top, -40);
  EXPECT_EQ(display_.right, 3200);
  EXPECT_EQ(display_.bottom, 680);
  EXPECT_EQ(log_.count("video: desktop duplication on \\\\.\\DISPLAY2: 1280x720, rotation 1"), 1);
  EXPECT_EQ(log_.count("image in system memory"), 0);
  EXPECT_EQ(log_.count("WARNING"), 0);
}

TEST_F(DuplicationSubscribe, OlderCallWhereTheNewerIsMissing) {
  gpu_.output.deny<IDXGIOutput5>();
  ASSERT_TRUE(open());
  gpu_.stage.take_calls();
  EXPECT_TRUE(subscribe());
  EXPECT_THAT(gpu_.stage.take_calls(),
              ElementsAre("IDXGIOutput1::DuplicateOutput", "IDXGIOutputDuplication::GetDesc",
                          "IDXGIOutput::GetDesc"));
}

TEST_F(DuplicationSubscribe, OlderCallWhereTheNewerFails) {
  ASSERT_TRUE(open());
  gpu_.stage.fail<&IDXGIOutput5::DuplicateOutput1>(E_INVALIDARG);
  EXPECT_TRUE(subscribe());
  EXPECT_EQ(gpu_.stage.count("IDXGIOutput1::DuplicateOutput"), 1);
}

TEST_F(DuplicationSubscribe, ImageInSystemMemoryAndRotationAreSaid) {
  gpu_.duplication.DesktopImageInSystemMemory = TRUE;
  gpu_.duplication.Rotation = DXGI_MODE_ROTATION_ROTATE90;
  ASSERT_TRUE(open());
  EXPECT_TRUE(subscribe());
  EXPECT_EQ(log_.count("1280x720, rotation 2, image in system memory"), 1);
  EXPECT_EQ(log_.count("video: WARNING rotated displays are not supported; the picture will be "
                       "sideways"),
            1);
}

TEST_F(DuplicationSubscribe, EachFailureHasItsExplanation) {
  const struct {
    HRESULT result;
    const char* text;
    bool desktop_moved;
  } failures[] = {
      {E_ACCESSDENIED,
       "DuplicateOutput failed (0x80070005) (secure desktop: UAC prompt / lock screen; needs "
       "SYSTEM)",
       true},
      {DXGI_ERROR_UNSUPPORTED,
       "DuplicateOutput failed (0x887a0004) (unsupported: hybrid GPU or HDR?)", false},
      {DXGI_ERROR_NOT_CURRENTLY_AVAILABLE,
       "DuplicateOutput failed (0x887a0022) (too many duplications)", false},
      {E_NOTIMPL, "DuplicateOutput failed (0x80004001)", false},
      {DXGI_ERROR_SESSION_DISCONNECTED, "DuplicateOutput failed (0x887a0028)", false},
  };
  ASSERT_TRUE(open());
  for (const auto& expected : failures) {
    SCOPED_TRACE(expected.text);
    gpu_.stage.fail<&IDXGIOutput5::DuplicateOutput1>(E_FAIL);
    gpu_.stage.fail<&IDXGIOutput1::DuplicateOutput>(expected.result);
    EXPECT_FALSE(subscribe());
    EXPECT_FALSE(source_->subscribed());
    EXPECT_EQ(failure_.code, static_cast<std::uint32_t>(expected.result));
    EXPECT_EQ(failure_.text, expected.text);
    EXPECT_EQ(failure_.desktop_moved, expected.desktop_moved);
  }
}

TEST_F(DuplicationSubscribe, AnEarlierDuplicationIsLetGoOfFirst) {
  ASSERT_TRUE(open() && subscribe());
  int held = -1;
  gpu_.output.on<&IDXGIOutput5::DuplicateOutput1>(
      [&](IUnknown*, UINT, UINT, const DXGI_FORMAT*, IDXGIOutputDuplication** out) {
        held = gpu_.duplicate.references();
        return gpu_.duplicate.give(out);
      });
  EXPECT_TRUE(subscribe());
  EXPECT_EQ(held, 0);
}

TEST_F(DuplicationSubscribe, UnsubscribeLetsGo) {
  ASSERT_TRUE(open() && subscribe());
  source_->unsubscribe();
  EXPECT_FALSE(source_->subscribed());
  EXPECT_EQ(gpu_.duplicate.references(), 0);
  source_->unsubscribe();
}

TEST_F(DuplicationSubscribe, UnsubscribeReleasesAHeldFrame) {
  ASSERT_TRUE(open() && subscribe());
  gpu_.next_frame();
  ASSERT_EQ(acquire(), AcquireResult::Picture);
  source_->unsubscribe();
  EXPECT_EQ(gpu_.stage.count("IDXGIOutputDuplication::ReleaseFrame"), 1);
}

TEST_F(DuplicationAcquire, FirstFrameIsAPictureWhateverItTells) {
  ASSERT_TRUE(open() && subscribe());
  FakeDirect3d::Frame& frame = gpu_.next_frame();
  frame.present_ticks = 0;
  frame.accumulated = 0;
  EXPECT_EQ(acquire(1000), AcquireResult::Picture);
  EXPECT_THAT(gpu_.waits_ms, ElementsAre(1000u));
  EXPECT_EQ(acquired_.width, 1280);
  EXPECT_EQ(acquired_.height, 720);
  EXPECT_EQ(acquired_.present_us, 0u) << "unknown";
  source_->release();
}

TEST_F(DuplicationAcquire, PresentTimeIsOnTheClockOfTheRest) {
  begin();
  gpu_.next_frame().present_ticks = ticks_of_us(123'456'789'000);
  ASSERT_EQ(acquire(), AcquireResult::Picture);
  EXPECT_EQ(acquired_.present_us, 123'456'789'000u);
  source_->release();
}

TEST_F(DuplicationAcquire, FrameWithoutPresentTimeOrFramesIsThePointerAlone) {
  begin();
  gpu_.next_frame().present_ticks = 0;
  gpu_.next_frame().accumulated = 0;
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(acquire(), AcquireResult::PointerOnly);
    EXPECT_FALSE(source_->hold()) << "there is nothing to hold";
    source_->release();
  }
  EXPECT_THAT(gpu_.stage.take_calls(), ElementsAre("IDXGIOutputDuplication::AcquireNextFrame",
                                                   "IDXGIOutputDuplication::ReleaseFrame",
                                                   "IDXGIOutputDuplication::AcquireNextFrame",
                                                   "IDXGIOutputDuplication::ReleaseFrame"));
}

TEST_F(DuplicationAcquire, NothingWithinTheWaitIsATimeOut) {
  begin();
  const std::uint64_t before_us = lund_now_us();
  EXPECT_EQ(acquire(17), AcquireResult::TimeOut);
  EXPECT_EQ(lund_now_us() - before_us, 17'000u);
  source_->release();  // nothing to give back
}

TEST_F(DuplicationAcquire, AccessLostAndInvalidCallLoseTheDuplication) {
  begin();
  gpu_.next_frame().result = DXGI_ERROR_ACCESS_LOST;
  EXPECT_EQ(acquire(), AcquireResult::Lost);
  EXPECT_EQ(log_.count("video: duplication lost (0x887a0026: mode change, secure desktop or "
                       "fullscreen switch); recreating"),
            1);
  gpu_.next_frame().result = DXGI_ERROR_INVALID_CALL;
  EXPECT_EQ(acquire(), AcquireResult::Lost);
  EXPECT_EQ(log_.count("video: duplication lost (0x887a0001: "), 1);
}

TEST_F(DuplicationAcquire, OtherFailureIsOfTheMomentWhileTheDeviceLives) {
  begin();
  gpu_.next_frame().result = E_INVALIDARG;
  EXPECT_EQ(acquire(), AcquireResult::Busy);
  EXPECT_EQ(log_.count("video: AcquireNextFrame failed (0x80070057, device 0x00000000)"), 1);
}

TEST_F(DuplicationAcquire, OtherFailureOfADeadDeviceIsItsEnd) {
  begin();
  gpu_.next_frame().result = DXGI_ERROR_DEVICE_REMOVED;
  gpu_.removed_reason = DXGI_ERROR_DEVICE_HUNG;
  EXPECT_EQ(acquire(), AcquireResult::Gone);
  EXPECT_EQ(log_.count("video: AcquireNextFrame failed (0x887a0005, device 0x887a0006)"), 1);
}

TEST_F(DuplicationAcquire, RemovedDeviceIsReportedWithItsReason) {
  begin();
  EXPECT_TRUE(source_->alive());
  gpu_.removed_reason = DXGI_ERROR_DEVICE_RESET;
  EXPECT_FALSE(source_->alive());
  EXPECT_EQ(log_.count("video: GPU device removed (0x887a0007); rebuilding"), 1);
}

TEST_F(DuplicationAcquire, HeldPictureIsCopiedIntoATextureOfItsOwn) {
  ASSERT_TRUE(open() && subscribe());
  gpu_.next_frame();
  ASSERT_EQ(acquire(), AcquireResult::Picture);
  ASSERT_TRUE(source_->hold());
  EXPECT_TRUE(source_->has_picture());
  source_->release();
  ASSERT_EQ(gpu_.textures.size(), 1u);
  const D3D11_TEXTURE2D_DESC& texture = gpu_.textures[0];
  EXPECT_EQ(texture.Width, 1280u);
  EXPECT_EQ(texture.Height, 720u);
  EXPECT_EQ(texture.Format, DXGI_FORMAT_B8G8R8A8_UNORM);
  EXPECT_EQ(texture.MipLevels, 1u);
  EXPECT_EQ(texture.ArraySize, 1u);
  EXPECT_EQ(texture.SampleDesc.Count, 1u);
  EXPECT_EQ(texture.Usage, D3D11_USAGE_DEFAULT);
  EXPECT_EQ(texture.BindFlags, 0x28u);
  EXPECT_EQ(texture.CPUAccessFlags, 0u);
  EXPECT_THAT(gpu_.copies, ElementsAre(testing::Pair("texture 1", "desktop")));
}

TEST_F(DuplicationAcquire, TextureIsKeptWhileSizeAndFormatStay) {
  begin();
  gpu_.next_frame();
  ASSERT_EQ(acquire(), AcquireResult::Picture);
  ASSERT_TRUE(source_->hold());
  source_->release();
  EXPECT_EQ(gpu_.textures.size(), 1u);
  EXPECT_EQ(gpu_.copies.size(), 2u);
  EXPECT_EQ(log_.count("video: converter"), 1);
}

TEST_F(DuplicationAcquire, OtherFormatMakesTextureAndConverterAnew) {
  begin();
  gpu_.next_frame().format = DXGI_FORMAT_R16G16B16A16_FLOAT;
  ASSERT_EQ(acquire(), AcquireResult::Picture);
  ASSERT_TRUE(source_->hold());
  source_->release();
  ASSERT_EQ(gpu_.textures.size(), 2u);
  EXPECT_EQ(gpu_.textures[1].Format, DXGI_FORMAT_R16G16B16A16_FLOAT);
  EXPECT_EQ(gpu_.input_texture, "texture 2");
  EXPECT_EQ(log_.count("video: converter 1280x720 (format 10)"), 1);
}

TEST_F(DuplicationAcquire, SizeIsToldBeforeThePictureIsHeld) {
  begin();
  gpu_.next_frame().width = 1024;
  ASSERT_EQ(acquire(), AcquireResult::Picture);
  EXPECT_EQ(acquired_.width, 1024);
  source_->release();
  EXPECT_EQ(gpu_.textures.size(), 1u);
}

TEST_F(DuplicationAcquire, TextureThatFailsLeavesNoPicture) {
  ASSERT_TRUE(open() && subscribe());
  gpu_.stage.fail<&ID3D11Device::CreateTexture2D>(E_OUTOFMEMORY);
  gpu_.next_frame();
  ASSERT_EQ(acquire(), AcquireResult::Picture);
  EXPECT_FALSE(source_->hold());
  source_->release();
  EXPECT_FALSE(source_->has_picture());
  EXPECT_FALSE(source_->converter_ready());
  EXPECT_THAT(gpu_.copies, IsEmpty());
  EXPECT_EQ(log_.count("video: capture texture failed (0x8007000e)"), 1);
}

TEST_F(DuplicationAcquire, CaptureGoesOnWithoutAConverter) {
  ASSERT_TRUE(open() && subscribe());
  gpu_.nv12_support = 0;
  gpu_.next_frame();
  ASSERT_EQ(acquire(), AcquireResult::Picture);
  EXPECT_TRUE(source_->hold());
  source_->release();
  EXPECT_TRUE(source_->has_picture());
  EXPECT_FALSE(source_->converter_ready());
  EXPECT_FALSE(source_->draw({}));
  EXPECT_EQ(gpu_.copies.size(), 1u);
}

TEST_F(DuplicationPointer, PositionIsOfTheImagesCorner) {
  begin();
  FakeDirect3d::Frame& frame = gpu_.next_frame();
  frame.present_ticks = 0;
  frame.mouse_ticks = 5;
  frame.visible = true;
  frame.position = {-3, 700};
  ASSERT_EQ(acquire(), AcquireResult::PointerOnly);
  const PointerUpdate update = source_->pointer()->pointer_update();
  EXPECT_TRUE(update.moved);
  EXPECT_TRUE(update.visible);
  EXPECT_EQ(update.position, (DesktopPoint{-3, 700}));
  EXPECT_EQ(update.anchor, PointerAnchor::ImageCorner);
  EXPECT_EQ(update.shape_bytes, 0u);
  source_->release();
}

TEST_F(DuplicationPointer, FrameThatTellsNothingOfItMovesNothing) {
  begin();
  gpu_.next_frame().visible = true;
  ASSERT_EQ(acquire(), AcquireResult::Picture);
  EXPECT_FALSE(source_->pointer()->pointer_update().moved);
  source_->release();
}

TEST_F(DuplicationPointer, ShapeIsReadWithAllThatDescribesIt) {
  begin();
  FakeDirect3d::Frame& frame = gpu_.next_frame();
  frame.shape.assign(2 * 16, 0x55);
  frame.shape_info = {DXGI_OUTDUPL_POINTER_SHAPE_TYPE_MASKED_COLOR, 3, 2, 16, {1, 2}};
  ASSERT_EQ(acquire(), AcquireResult::Picture);
  ASSERT_EQ(source_->pointer()->pointer_update().shape_bytes, 32u);
  std::vector<std::uint8_t> buffer(40);
  PointerShape shape;
  ASSERT_TRUE(source_->pointer()->read_pointer_shape(buffer.data(), &shape));
  EXPECT_EQ(shape.type, CURSOR_MASKED_COLOUR);
  EXPECT_EQ(shape.size, 32u);
  EXPECT_EQ(shape.width, 3);
  EXPECT_EQ(shape.height, 2);
  EXPECT_EQ(shape.pitch, 16);
  EXPECT_EQ(shape.hot_x, 1);
  EXPECT_EQ(shape.hot_y, 2);
  EXPECT_EQ(buffer[31], 0x55);
  EXPECT_EQ(buffer[32], 0);
  source_->release();
}

TEST_F(DuplicationPointer, ShapeThatCannotBeReadIsNone) {
  begin();
  gpu_.next_frame().shape.assign(4, 0);
  gpu_.stage.fail<&IDXGIOutputDuplication::GetFramePointerShape>(DXGI_ERROR_ACCESS_LOST);
  ASSERT_EQ(acquire(), AcquireResult::Picture);
  std::uint8_t buffer[4];
  PointerShape shape;
  EXPECT_FALSE(source_->pointer()->read_pointer_shape(buffer, &shape));
  source_->release();
}

}  // namespace
