// How the video processor is set up and driven.
#include "capture/windows/nv12_converter.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/captured_log.h"
#include "tests/support/windows/fake_direct3d.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class Nv12ConverterTest : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(open_display_device(gpu_.api(), gpu_.display(), &device_));
    description_.Width = 1921;
    description_.Height = 1080;
    description_.ArraySize = 1;
    description_.Format = DXGI_FORMAT_B8G8R8A8_UNORM;
    gpu_.make_texture("capture", description_).give(source_.GetAddressOf());
    gpu_.stage.take_calls();
  }
  void TearDown() override {
    converter_.close();
    source_.Reset();
    device_ = {};
    EXPECT_THAT(gpu_.stage.complaints(), IsEmpty());
  }
  bool open() { return converter_.open(device_, source_.Get(), {1280, 720}, 50); }
  // A surface that the encoder owns: it is alive while the converter draws.
  ComPtr<ID3D11Texture2D> surface(UINT slices = 1) {
    D3D11_TEXTURE2D_DESC description = description_;
    description.ArraySize = slices;
    ComPtr<ID3D11Texture2D> made;
    gpu_.make_texture("surface " + std::to_string(++surfaces_), description)
        .give(made.GetAddressOf());
    return made;
  }

  CapturedLog log_;
  FakeDirect3d gpu_;
  DisplayDevice device_;
  D3D11_TEXTURE2D_DESC description_{};
  ComPtr<ID3D11Texture2D> source_;
  Nv12Converter converter_;
  int surfaces_ = 0;
};

void expect_rect(const RECT& rect, LONG width, LONG height) {
  EXPECT_EQ(rect.left, 0);
  EXPECT_EQ(rect.top, 0);
  EXPECT_EQ(rect.right, width);
  EXPECT_EQ(rect.bottom, height);
}

TEST_F(Nv12ConverterTest, IsBuiltInOrderForTheTwoSizes) {
  ASSERT_TRUE(open());
  EXPECT_TRUE(converter_.ready());
  EXPECT_THAT(
      gpu_.stage.take_calls(),
      ElementsAre("ID3D11Texture2D::GetDesc", "ID3D11VideoDevice::CreateVideoProcessorEnumerator",
                  "ID3D11VideoProcessorEnumerator::CheckVideoProcessorFormat",
                  "ID3D11VideoDevice::CreateVideoProcessor",
                  "ID3D11VideoDevice::CreateVideoProcessorInputView",
                  "ID3D11VideoContext1::VideoProcessorSetStreamColorSpace1",
                  "ID3D11VideoContext1::VideoProcessorSetOutputColorSpace1",
                  "ID3D11VideoContext::VideoProcessorSetStreamFrameFormat",
                  "ID3D11VideoContext::VideoProcessorSetStreamSourceRect",
                  "ID3D11VideoContext::VideoProcessorSetStreamDestRect",
                  "ID3D11VideoContext::VideoProcessorSetOutputTargetRect",
                  "ID3D11VideoContext::VideoProcessorSetStreamAutoProcessingMode"));
  EXPECT_EQ(gpu_.content.InputFrameFormat, D3D11_VIDEO_FRAME_FORMAT_PROGRESSIVE);
  EXPECT_EQ(gpu_.content.InputFrameRate.Numerator, 50u);
  EXPECT_EQ(gpu_.content.InputFrameRate.Denominator, 1u);
  EXPECT_EQ(gpu_.content.InputWidth, 1921u);
  EXPECT_EQ(gpu_.content.InputHeight, 1080u);
  EXPECT_EQ(gpu_.content.OutputFrameRate.Numerator, 50u);
  EXPECT_EQ(gpu_.content.OutputFrameRate.Denominator, 1u);
  EXPECT_EQ(gpu_.content.OutputWidth, 1280u);
  EXPECT_EQ(gpu_.content.OutputHeight, 720u);
  EXPECT_EQ(gpu_.content.Usage, D3D11_VIDEO_USAGE_OPTIMAL_SPEED);
  EXPECT_EQ(gpu_.checked_format, DXGI_FORMAT_NV12);
  EXPECT_EQ(gpu_.rate_conversion, 0u);
  EXPECT_EQ(gpu_.input_texture, "capture");
  EXPECT_EQ(gpu_.input_view.ViewDimension, D3D11_VPIV_DIMENSION_TEXTURE2D);
  EXPECT_EQ(gpu_.input_view.FourCC, 0u);
  EXPECT_EQ(gpu_.input_view.Texture2D.MipSlice, 0u);
  EXPECT_EQ(gpu_.input_view.Texture2D.ArraySlice, 0u);
  EXPECT_EQ(gpu_.stream_format, D3D11_VIDEO_FRAME_FORMAT_PROGRESSIVE);
  expect_rect(gpu_.source_rect, 1921, 1080);
  expect_rect(gpu_.dest_rect, 1280, 720);
  expect_rect(gpu_.target_rect, 1280, 720);
  EXPECT_FALSE(gpu_.auto_processing);
  EXPECT_EQ(log_.count("video: converter 1921x1080 (format 87) -> NV12 1280x720 BT.709 full range: "
                       "ok"),
            1);
}

TEST_F(Nv12ConverterTest, ColoursAreBt709FullRange) {
  ASSERT_TRUE(open());
  EXPECT_THAT(gpu_.colours.stream, ElementsAre(DXGI_COLOR_SPACE_RGB_FULL_G22_NONE_P709));
  EXPECT_THAT(gpu_.colours.output, ElementsAre(DXGI_COLOR_SPACE_YCBCR_FULL_G22_LEFT_P709));
  EXPECT_THAT(gpu_.colours.old_stream, IsEmpty());
}

TEST_F(Nv12ConverterTest, ColoursAreTheSameByTheOlderInterface) {
  gpu_.video_context.deny<ID3D11VideoContext1>();
  ASSERT_TRUE(open());
  EXPECT_THAT(gpu_.colours.stream, IsEmpty());
  ASSERT_EQ(gpu_.colours.old_stream.size(), 1u);
  EXPECT_EQ(gpu_.colours.old_stream[0].YCbCr_Matrix, 1u);
  EXPECT_EQ(gpu_.colours.old_stream[0].RGB_Range, 0u);
  ASSERT_EQ(gpu_.colours.old_output.size(), 1u);
  EXPECT_EQ(gpu_.colours.old_output[0].YCbCr_Matrix, 1u);
  EXPECT_EQ(static_cast<int>(gpu_.colours.old_output[0].Nominal_Range),
            static_cast<int>(D3D11_VIDEO_PROCESSOR_NOMINAL_RANGE_0_255));
  EXPECT_FALSE(gpu_.auto_processing);
}

TEST_F(Nv12ConverterTest, EachStepThatFailsIsNamedWithItsCode) {
  const struct {
    const char* line;
    std::function<void()> arrange;
  } steps[] = {
      {"video: CreateVideoProcessorEnumerator failed (0x80004001)",
       [&] { gpu_.stage.fail<&ID3D11VideoDevice::CreateVideoProcessorEnumerator>(E_NOTIMPL); }},
      {"video: NV12 output support failed (0x80004005)",
       [&] {
         gpu_.stage.fail<&ID3D11VideoProcessorEnumerator::CheckVideoProcessorFormat>(E_INVALIDARG);
       }},
      {"video: CreateVideoProcessor failed (0x8007000e)",
       [&] { gpu_.stage.fail<&ID3D11VideoDevice::CreateVideoProcessor>(E_OUTOFMEMORY); }},
      {"video: CreateVideoProcessorInputView failed (0x80070057)",
       [&] { gpu_.stage.fail<&ID3D11VideoDevice::CreateVideoProcessorInputView>(E_INVALIDARG); }},
      {"video: video device/context failed (0x80004002)",
       [&] { gpu_.context.deny<ID3D11VideoContext>(); }},
      {"video: video device/context failed (0x80004002)",
       [&] { gpu_.device.deny<ID3D11VideoDevice>(); }},
  };
  for (const auto& step : steps) {
    SCOPED_TRACE(step.line);
    const int lines = log_.count(step.line);
    const int summaries = log_.count("BT.709 full range: FAILED");
    step.arrange();
    EXPECT_FALSE(open());
    EXPECT_FALSE(converter_.ready());
    EXPECT_EQ(log_.count(step.line), lines + 1);
    EXPECT_EQ(log_.count("BT.709 full range: FAILED"), summaries + 1);
    EXPECT_FALSE(converter_.draw({surface().Get(), 0}));
  }
}

TEST_F(Nv12ConverterTest, InputSupportAloneIsNotEnough) {
  gpu_.nv12_support = D3D11_VIDEO_PROCESSOR_FORMAT_SUPPORT_INPUT;
  EXPECT_FALSE(open());
  EXPECT_EQ(log_.count("video: NV12 output support failed (0x80004005)"), 1);
}

TEST_F(Nv12ConverterTest, DrawsTheOneStreamIntoTheSurface) {
  ASSERT_TRUE(open());
  const auto target = surface();
  ASSERT_TRUE(converter_.draw({target.Get(), 0}));
  ASSERT_EQ(gpu_.output_views.size(), 1u);
  EXPECT_EQ(gpu_.output_views[0].first, "surface 1");
  EXPECT_EQ(gpu_.output_views[0].second.ViewDimension, D3D11_VPOV_DIMENSION_TEXTURE2D);
  EXPECT_EQ(gpu_.output_views[0].second.Texture2D.MipSlice, 0u);
  ASSERT_EQ(gpu_.blts.size(), 1u);
  EXPECT_EQ(gpu_.blts[0].view, "view 1 of surface 1");
  EXPECT_EQ(gpu_.blts[0].streams, 1u);
  EXPECT_TRUE(gpu_.blts[0].enabled);
  EXPECT_EQ(gpu_.blts[0].input, "view of capture");
}

TEST_F(Nv12ConverterTest, SliceOfAnArrayHasAViewOfItAlone) {
  ASSERT_TRUE(open());
  const auto target = surface(8);
  ASSERT_TRUE(converter_.draw({target.Get(), 5}));
  const D3D11_VIDEO_PROCESSOR_OUTPUT_VIEW_DESC& view = gpu_.output_views[0].second;
  EXPECT_EQ(view.ViewDimension, D3D11_VPOV_DIMENSION_TEXTURE2DARRAY);
  EXPECT_EQ(view.Texture2DArray.MipSlice, 0u);
  EXPECT_EQ(view.Texture2DArray.FirstArraySlice, 5u);
  EXPECT_EQ(view.Texture2DArray.ArraySize, 1u);
}

TEST_F(Nv12ConverterTest, EachSurfaceHasOneViewThatIsKept) {
  ASSERT_TRUE(open());
  const auto array = surface(2);
  const auto single = surface();
  for (int round = 0; round < 3; ++round) {
    EXPECT_TRUE(converter_.draw({array.Get(), 0}));
    EXPECT_TRUE(converter_.draw({array.Get(), 1}));
    EXPECT_TRUE(converter_.draw({single.Get(), 0}));
  }
  EXPECT_EQ(gpu_.output_views.size(), 3u);
  EXPECT_EQ(gpu_.blts.size(), 9u);
  EXPECT_EQ(gpu_.blts[6].view, "view 1 of surface 1");
  EXPECT_EQ(gpu_.blts[7].view, "view 2 of surface 1");
  EXPECT_EQ(gpu_.blts[8].view, "view 3 of surface 2");
}

TEST_F(Nv12ConverterTest, ForgottenSurfacesAreLookedAtAnew) {
  ASSERT_TRUE(open());
  const auto target = surface();
  ASSERT_TRUE(converter_.draw({target.Get(), 0}));
  converter_.forget_surfaces();
  ASSERT_TRUE(converter_.draw({target.Get(), 0}));
  EXPECT_EQ(gpu_.output_views.size(), 2u);
}

TEST_F(Nv12ConverterTest, ViewThatFailsIsLoggedAndTriedAgain) {
  ASSERT_TRUE(open());
  gpu_.stage.fail<&ID3D11VideoDevice::CreateVideoProcessorOutputView>(E_INVALIDARG);
  const auto target = surface();
  EXPECT_FALSE(converter_.draw({target.Get(), 0}));
  EXPECT_EQ(log_.count("video: CreateVideoProcessorOutputView failed (0x80070057)"), 1);
  EXPECT_THAT(gpu_.blts, IsEmpty());
  EXPECT_TRUE(converter_.draw({target.Get(), 0}));
}

TEST_F(Nv12ConverterTest, BltThatFailsIsLogged) {
  ASSERT_TRUE(open());
  gpu_.stage.fail<&ID3D11VideoContext::VideoProcessorBlt>(DXGI_ERROR_DEVICE_REMOVED);
  const auto target = surface();
  EXPECT_FALSE(converter_.draw({target.Get(), 0}));
  EXPECT_EQ(log_.count("video: VideoProcessorBlt failed (0x887a0005)"), 1);
}

}  // namespace
