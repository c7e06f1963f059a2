// The capture loop on desktop duplication: what becomes of a session when the system says no.
#include <gmock/gmock.h>

#include "tests/capture/windows/duplication_loop_fixture.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class DuplicationRun : public DuplicationLoopTest {
 protected:
  DuplicationRun() {
    D3D11_TEXTURE2D_DESC description{};
    description.ArraySize = 1;
    gpu_.make_texture("surface", description).give(surface_.GetAddressOf());
    world_.surface = {surface_.Get(), 0};
    run_on(platform());
  }
  void TearDown() override {
    loop_.reset();
    surface_.Reset();
    DuplicationLoopTest::TearDown();
  }
  int devices_made() { return gpu_.stage.count("D3D11CreateDevice"); }
  int duplications_tried() { return gpu_.stage.count("IDXGIOutput1::DuplicateOutput"); }
  void fail_duplication(HRESULT result, int times) {
    gpu_.output.deny<IDXGIOutput5>();
    gpu_.stage.fail<&IDXGIOutput1::DuplicateOutput>(result, times);
  }
  void expect_gpu_let_go_of() {
    EXPECT_EQ(gpu_.device.references(), 0);
    EXPECT_EQ(gpu_.context.references(), 0);
    EXPECT_EQ(gpu_.output.references(), 0);
    EXPECT_EQ(gpu_.duplicate.references(), 0);
  }

  ComPtr<ID3D11Texture2D> surface_;
};

TEST_F(DuplicationRun, PicturesGoFromTheDuplicationIntoTheEncodersSurface) {
  begin_session();
  EXPECT_EQ(active_.backend, "DDA GPU");
  EXPECT_EQ(active_.encoder, "h264_nvenc");
  virtual_time::advance_ms(20);
  gpu_.next_frame();
  pass_until_frames(1);
  EXPECT_THAT(
      gpu_.stage.take_calls(),
      ElementsAre("IDXGIOutputDuplication::AcquireNextFrame", "ID3D11Texture2D::GetDesc",
                  "ID3D11Texture2D::GetDesc", "ID3D11Texture2D::GetDesc",
                  "ID3D11DeviceContext::CopyResource", "IDXGIOutputDuplication::ReleaseFrame",
                  "ID3D11VideoContext::VideoProcessorBlt", "ID3D11Device::GetDeviceRemovedReason"));
  EXPECT_EQ(gpu_.output_views.size(), 1u) << "one view for the surface";
}

TEST_F(DuplicationRun, WithoutDuplicationTheSessionIsGdis) {
  fail_duplication(E_NOTIMPL, 1);
  ASSERT_TRUE(begin());
  EXPECT_EQ(active_.backend, "GDI CPU");
  EXPECT_EQ(active_.encoder, "libopenh264");
  EXPECT_EQ(log_.count("video: DuplicateOutput failed (0x80004001); retrying"), 1);
  expect_gpu_let_go_of();
}

TEST_F(DuplicationRun, WithoutAFirstPictureTheSessionIsGdis) {
  ASSERT_TRUE(begin());
  EXPECT_THAT(gpu_.waits_ms, ElementsAre(1000u));
  EXPECT_EQ(active_.backend, "GDI CPU");
  expect_gpu_let_go_of();
}

TEST_F(DuplicationRun, WithoutAConverterTheSessionIsGdis) {
  gpu_.stage.fail<&ID3D11VideoDevice::CreateVideoProcessorEnumerator>(E_NOTIMPL);
  gpu_.next_frame();
  ASSERT_TRUE(begin());
  EXPECT_EQ(active_.backend, "GDI CPU");
  EXPECT_EQ(log_.count("video: CreateVideoProcessorEnumerator failed (0x80004001)"), 1);
  expect_gpu_let_go_of();
}

TEST_F(DuplicationRun, LostDuplicationIsRebuiltFromTheDeviceOn) {
  begin_session();
  gpu_.next_frame().result = DXGI_ERROR_ACCESS_LOST;
  ASSERT_TRUE(pass());
  expect_gpu_let_go_of();
  gpu_.next_frame();
  pass_until_frames(1);
  EXPECT_TRUE(frames_[0].keyframe);
  EXPECT_EQ(devices_made(), 1);
  EXPECT_THAT(fatal(), IsEmpty());
}

TEST_F(DuplicationRun, RemovedDeviceIsRebuilt) {
  begin_session();
  gpu_.removed_reason = DXGI_ERROR_DEVICE_REMOVED;
  ASSERT_TRUE(pass());
  EXPECT_EQ(log_.count("video: GPU device removed (0x887a0005); rebuilding"), 1);
  expect_gpu_let_go_of();
  gpu_.removed_reason = S_OK;
  gpu_.next_frame();
  pass_until_frames(1);
  EXPECT_TRUE(frames_[0].keyframe);
  EXPECT_EQ(devices_made(), 1);
}

TEST_F(DuplicationRun, DeviceThatDiesUnderAcquireIsRebuiltAfterAPause) {
  begin_session();
  gpu_.next_frame().result = DXGI_ERROR_DEVICE_REMOVED;
  gpu_.removed_reason = DXGI_ERROR_DEVICE_REMOVED;
  EXPECT_EQ(elapsed_us_of_pass(), 100'000u);
  EXPECT_EQ(log_.count("video: AcquireNextFrame failed (0x887a0005, device 0x887a0005)"), 1);
  expect_gpu_let_go_of();
  gpu_.removed_reason = S_OK;
  gpu_.next_frame();
  pass_until_frames(1);
}

TEST_F(DuplicationRun, FailureOfTheMomentCostsTheDuplicationAlone) {
  begin_session();
  gpu_.next_frame().result = E_INVALIDARG;
  EXPECT_EQ(elapsed_us_of_pass(), 100'000u);
  EXPECT_EQ(gpu_.duplicate.references(), 0);
  EXPECT_GT(gpu_.device.references(), 0);
  gpu_.next_frame();
  pass_until_frames(1);
  EXPECT_EQ(devices_made(), 0);
  EXPECT_TRUE(frames_[0].keyframe) << "a duplication begins with one";
}

TEST_F(DuplicationRun, DuplicationThatKeepsFailingIsLoggedSeldomAndRebuildsAtTheFifteenth) {
  begin_session();
  fail_duplication(DXGI_ERROR_NOT_CURRENTLY_AVAILABLE, 15);
  gpu_.next_frame().result = E_INVALIDARG;
  ASSERT_TRUE(pass());
  ASSERT_TRUE(pass(14));
  EXPECT_GT(gpu_.device.references(), 0);
  EXPECT_EQ(log_.count("video: rebuilding the capture device"), 0);
  ASSERT_TRUE(pass());
  EXPECT_EQ(duplications_tried(), 15);
  EXPECT_EQ(log_.count("video: rebuilding the capture device"), 1);
  EXPECT_EQ(log_.count("DuplicateOutput failed (0x887a0022) (too many duplications); retrying"), 1);
  expect_gpu_let_go_of();
  gpu_.next_frame();
  pass_until_frames(1);
  EXPECT_EQ(devices_made(), 1);
}

TEST_F(DuplicationRun, DeniedAccessLooksForTheDesktopThatHasMoved) {
  begin_session();
  gpu_.next_frame().result = E_INVALIDARG;
  ASSERT_TRUE(pass());
  gpu_.output.on<&IDXGIOutput1::DuplicateOutput>(
      [this](IUnknown*, IDXGIOutputDuplication** out) -> HRESULT {
        if (world_.input_desktop == "Winlogon") return gpu_.duplicate.give(out);
        world_.input_desktop = "Winlogon";
        return E_ACCESSDENIED;
      });
  gpu_.output.deny<IDXGIOutput5>();
  const int entered = world_.desktops_entered;
  ASSERT_TRUE(pass());
  EXPECT_EQ(world_.desktops_entered, entered + 1);
  expect_gpu_let_go_of();
  gpu_.next_frame();
  pass_until_frames(1);
  EXPECT_THAT(fatal(), IsEmpty());
}

TEST_F(DuplicationRun, PictureOfAnotherSizeEndsTheSession) {
  begin_session();
  gpu_.next_frame().width = 1024;
  EXPECT_FALSE(pass());
  EXPECT_THAT(fatal(), ElementsAre("DDA capture geometry changed; reconnect required"));
}

TEST_F(DuplicationRun, PointerAloneIsReportedAndNothingEncoded) {
  begin_session();
  virtual_time::advance_ms(20);
  FakeDirect3d::Frame& frame = gpu_.next_frame();
  frame.present_ticks = 0;
  frame.mouse_ticks = 1;
  frame.visible = true;
  frame.position = {1279, 719};
  ASSERT_TRUE(pass());
  EXPECT_THAT(frames_, IsEmpty());
  EXPECT_THAT(world_.forced, IsEmpty());
  ASSERT_EQ(positions_.size(), 1u);
  EXPECT_EQ(positions_[0].x, 65535);
  EXPECT_EQ(positions_[0].y, 65535);
  EXPECT_EQ(positions_[0].visible, 1);
}

TEST_F(DuplicationRun, ImageOfThePointerReachesTheClient) {
  begin_session();
  FakeDirect3d::Frame& frame = gpu_.next_frame();
  frame.shape.assign(4 * 4 * 4, 0xFF);
  frame.shape_info = {DXGI_OUTDUPL_POINTER_SHAPE_TYPE_COLOR, 4, 4, 16, {2, 3}};
  ASSERT_TRUE(pass());
  ASSERT_EQ(images_.size(), 1u);
  EXPECT_EQ(images_[0].width, 4);
  EXPECT_EQ(images_[0].hot_y, 3);
}

TEST_F(DuplicationRun, BltThatFailsSixTimesReopensTheEncoder) {
  begin_session();
  const std::size_t opened = world_.encoder_opened.size();
  gpu_.stage.fail<&ID3D11VideoContext::VideoProcessorBlt>(E_FAIL, 6);
  for (int i = 0; i < 6; ++i) {
    virtual_time::advance_ms(20);
    gpu_.next_frame();
    ASSERT_TRUE(pass());
  }
  EXPECT_THAT(frames_, IsEmpty());
  EXPECT_EQ(world_.encoder_opened.size(), opened + 1);
  EXPECT_EQ(log_.count("video: VideoProcessorBlt failed (0x80004005)"), 6);
  virtual_time::advance_ms(20);
  gpu_.next_frame();
  pass_until_frames(1);
  EXPECT_TRUE(frames_[0].keyframe);
  EXPECT_EQ(gpu_.output_views.size(), 2u) << "views of the former encoder are forgotten";
}

}  // namespace
