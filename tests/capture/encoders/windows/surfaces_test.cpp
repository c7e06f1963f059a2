// The video encoder over made-up encoders on a made-up device: pictures that never leave the GPU,
// NV12 that is read back, and the whole chain from the duplication to the packet.
#include <gmock/gmock.h>

#include "capture/windows/d3d11_encoder_device.h"
#include "tests/capture/windows/duplication_loop_fixture.h"
#include "tests/support/fake_codec.h"

extern "C" {
#include <libavutil/hwcontext.h>
}

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;
using testing::SizeIs;

std::string name_of(const void* object) {
  return fake_com::Object::of(object).name();
}

class EncoderSurfaces : public testing::Test {
 protected:
  EncoderSurfaces() {
    virtual_time::reset();
    fake_codec::reset();
    ComPtr<ID3D11Device> made;
    gpu_.device.give(made.GetAddressOf());
    device_ = std::make_unique<D3d11EncoderDevice>(std::move(made));
    settings_.width = 64;
    settings_.height = 36;
  }
  void TearDown() override {
    encoder_.close();
    fake_codec::reset();
    EXPECT_EQ(gpu_.device.references(), 1) << "the device's own";
    device_.reset();
    EXPECT_THAT(gpu_.stage.complaints(), IsEmpty());
  }
  fake_codec::World& codec() { return fake_codec::world(); }
  bool open(const std::string& name, const std::vector<AVPixelFormat>& formats) {
    codec().encoders[name] = {AV_CODEC_ID_H264, formats};
    settings_.required = name;
    return encoder_.open(device_.get(), settings_);
  }
  bool open_zero_copy() { return open("h264_nvenc", {AV_PIX_FMT_NV12, AV_PIX_FMT_D3D11}); }
  bool end_frame() { return encoder_.end_frame(false, &out_, &keyframe_); }

  CapturedLog log_;
  FakeDirect3d gpu_;
  std::unique_ptr<D3d11EncoderDevice> device_;
  EncoderSettings settings_;
  VideoEncoder encoder_;
  std::vector<std::uint8_t> out_;
  bool keyframe_ = false;
};

TEST_F(EncoderSurfaces, ContextHasThePoolOfNv12OnTheDevice) {
  ASSERT_TRUE(open_zero_copy());
  const AVCodecContext& context = *codec().opened[0].context;
  EXPECT_EQ(context.pix_fmt, AV_PIX_FMT_D3D11);
  EXPECT_EQ(context.sw_pix_fmt, AV_PIX_FMT_NV12);
  EXPECT_EQ(context.profile, 100);
  EXPECT_EQ(context.thread_count, 0);
  ASSERT_NE(context.hw_device_ctx, nullptr);
  ASSERT_NE(context.hw_frames_ctx, nullptr);
  const auto& pool = *reinterpret_cast<const AVHWFramesContext*>(context.hw_frames_ctx->data);
  EXPECT_EQ(pool.format, AV_PIX_FMT_D3D11);
  EXPECT_EQ(pool.sw_format, AV_PIX_FMT_NV12);
  EXPECT_EQ(pool.width, 64);
  EXPECT_EQ(pool.height, 36);
  EXPECT_EQ(pool.initial_pool_size, 0);
  EXPECT_THAT(gpu_.textures, IsEmpty()) << "surfaces are made when they are needed";
  EXPECT_EQ(log_.count("VBV 1 frame, zero-copy D3D11 frames)"), 1);
}

TEST_F(EncoderSurfaces, WhatWasDrawnIntoIsWhatTheEncoderGets) {
  ASSERT_TRUE(open_zero_copy());
  EncoderSurface surface;
  ASSERT_TRUE(encoder_.begin_frame(&surface));
  EXPECT_EQ(name_of(surface.texture), "texture 1");
  EXPECT_EQ(gpu_.textures[0].Format, DXGI_FORMAT_NV12);
  EXPECT_EQ(gpu_.textures[0].BindFlags, 0x20u);
  ASSERT_TRUE(end_frame());
  ASSERT_THAT(codec().sent, SizeIs(1));
  EXPECT_EQ(codec().sent[0].format, AV_PIX_FMT_D3D11);
  EXPECT_EQ(codec().sent[0].surface, surface.texture);
  EXPECT_EQ(codec().sent[0].slice, surface.subresource);
  EXPECT_EQ(codec().sent[0].range, AVCOL_RANGE_JPEG);
  EXPECT_THAT(gpu_.copies, IsEmpty());
}

TEST_F(EncoderSurfaces, SurfaceComesRoundAgainOnceTheEncoderIsDoneWithIt) {
  ASSERT_TRUE(open_zero_copy());
  EncoderSurface first, second, third;
  ASSERT_TRUE(encoder_.begin_frame(&first) && end_frame());
  codec().holds_frames = true;
  ASSERT_TRUE(encoder_.begin_frame(&second) && end_frame());
  EXPECT_EQ(second.texture, first.texture);
  ASSERT_TRUE(encoder_.begin_frame(&third) && end_frame());
  EXPECT_NE(third.texture, second.texture) << "the encoder holds that one";
  EXPECT_EQ(gpu_.textures.size(), 2u);
}

TEST_F(EncoderSurfaces, SurfaceIsTheEncodersAloneOnceItWasSent) {
  ASSERT_TRUE(open_zero_copy());
  codec().holds_frames = true;
  EncoderSurface surface;
  ASSERT_TRUE(encoder_.begin_frame(&surface) && end_frame());
  EXPECT_EQ(av_buffer_get_ref_count(codec().held[0]->buf[0]), 1);
}

TEST_F(EncoderSurfaces, SurfaceThatCannotBeMadeIsTold) {
  ASSERT_TRUE(open_zero_copy());
  gpu_.stage.fail<&ID3D11Device::CreateTexture2D>(E_OUTOFMEMORY);
  EncoderSurface surface;
  EXPECT_FALSE(encoder_.begin_frame(&surface));
  EXPECT_EQ(log_.count("encoder: no free D3D11 frame: "), 1);
  EXPECT_TRUE(encoder_.begin_frame(&surface)) << "the next one may be";
}

TEST_F(EncoderSurfaces, FrameThatIsRefusedGivesItsSurfaceBack) {
  ASSERT_TRUE(open_zero_copy());
  codec().send_results = {AVERROR_EOF};
  EncoderSurface surface;
  ASSERT_TRUE(encoder_.begin_frame(&surface));
  EXPECT_FALSE(end_frame());
  EncoderSurface next;
  ASSERT_TRUE(encoder_.begin_frame(&next));
  EXPECT_EQ(next.texture, surface.texture);
}

TEST_F(EncoderSurfaces, EncoderThatDoesNotOpenGivesThePoolBack) {
  codec().encoders["h264_nvenc"] = {AV_CODEC_ID_H264, {AV_PIX_FMT_D3D11}, AVERROR_EXTERNAL};
  settings_.required = "h264_nvenc";
  EXPECT_FALSE(encoder_.open(device_.get(), settings_));
  EXPECT_EQ(gpu_.device.references(), 1);
  EXPECT_EQ(gpu_.context.references(), 0);
}

TEST_F(EncoderSurfaces, EncoderOfSystemMemoryGetsWhatTheStagingTextureMaps) {
  constexpr UINT PITCH = 128;
  gpu_.mapped_pitch = PITCH;
  for (UINT i = 0; i < PITCH * 36 * 3 / 2; ++i)
    gpu_.mapped_pixels.push_back(static_cast<std::uint8_t>(i / PITCH * 3 + i % PITCH));
  ASSERT_TRUE(open("h264_qsv", {AV_PIX_FMT_NV12, AV_PIX_FMT_QSV}));
  EncoderSurface surface;
  ASSERT_TRUE(encoder_.begin_frame(&surface));
  EXPECT_EQ(name_of(surface.texture), "texture 1");
  ASSERT_TRUE(end_frame());
  EXPECT_THAT(gpu_.copies, ElementsAre(Pair("texture 2", "texture 1")));
  const fake_codec::Sent& sent = codec().sent[0];
  ASSERT_THAT(sent.luma, SizeIs(64 * 36));
  ASSERT_THAT(sent.chroma_rows, SizeIs(64 * 18));
  EXPECT_EQ(sent.luma[0], 0);
  EXPECT_EQ(sent.luma[64 * 35 + 63], 35 * 3 + 63);
  EXPECT_EQ(sent.chroma_rows[0], 36 * 3);
  EXPECT_EQ(sent.chroma_rows[64 * 17 + 63], static_cast<std::uint8_t>(53 * 3 + 63));
  EXPECT_EQ(gpu_.stage.count("ID3D11DeviceContext::Unmap"), 1);
}

TEST_F(EncoderSurfaces, StagingTextureThatFailsIsToldWithItsCode) {
  gpu_.device.on<&ID3D11Device::CreateTexture2D>([this](const D3D11_TEXTURE2D_DESC* description,
                                                        const D3D11_SUBRESOURCE_DATA*,
                                                        ID3D11Texture2D** out) -> HRESULT {
    if (description->Usage == D3D11_USAGE_STAGING) return DXGI_ERROR_DEVICE_REMOVED;
    return gpu_.make_texture("render", *description).give(out);
  });
  EXPECT_FALSE(open("h264_qsv", {AV_PIX_FMT_NV12}));
  EXPECT_EQ(log_.count("encoder: h264_qsv: NV12 read-back textures failed (0x887a0005)"), 1);
}

TEST_F(EncoderSurfaces, MapThatFailsIsToldWithItsCode) {
  ASSERT_TRUE(open("h264_qsv", {AV_PIX_FMT_NV12}));
  gpu_.stage.fail<&ID3D11DeviceContext::Map>(DXGI_ERROR_DEVICE_HUNG);
  EXPECT_FALSE(end_frame());
  EXPECT_EQ(log_.count("encoder: staging Map failed (0x887a0006)"), 1);
  EXPECT_EQ(gpu_.stage.count("ID3D11DeviceContext::Unmap"), 0);
}

// From the desktop's picture to the frame sink, with nothing but drivers made up.
class PictureToPacket : public DuplicationLoopTest {
 protected:
  PictureToPacket() {
    fake_codec::reset();
    CapturePlatform with_the_encoder = platform();
    with_the_encoder.make_encoder = [] { return std::make_unique<VideoEncoder>(); };
    run_on(with_the_encoder);
  }
  void TearDown() override {
    loop_.reset();
    fake_codec::reset();
    DuplicationLoopTest::TearDown();
  }
  fake_codec::World& codec() { return fake_codec::world(); }
  void begin_session() {
    DuplicationLoopTest::begin_session();
    gpu_.blts.clear();
    codec().sent.clear();
  }
  void picture() {
    virtual_time::advance_ms(20);
    gpu_.next_frame();
    ASSERT_TRUE(pass());
  }
};

TEST_F(PictureToPacket, PictureIsConvertedIntoTheEncodersOwnSurface) {
  codec().encoders["h264_nvenc"] = {AV_CODEC_ID_H264, {AV_PIX_FMT_D3D11}};
  begin_session();
  EXPECT_EQ(active_.encoder, "h264_nvenc");
  picture();
  EXPECT_THAT(
      gpu_.stage.take_calls(),
      ElementsAre("IDXGIOutputDuplication::AcquireNextFrame", "ID3D11Texture2D::GetDesc",
                  "ID3D11Texture2D::GetDesc", "ID3D11Texture2D::GetDesc",
                  "ID3D11DeviceContext::CopyResource", "IDXGIOutputDuplication::ReleaseFrame",
                  "ID3D11VideoContext::VideoProcessorBlt", "ID3D11Device::GetDeviceRemovedReason"));
  ASSERT_THAT(codec().sent, SizeIs(1));
  const std::string surface = name_of(codec().sent[0].surface);
  EXPECT_EQ(gpu_.blts.back().view, "view 1 of " + surface);
  EXPECT_EQ(gpu_.copies.back().first, "texture 1");
  EXPECT_NE(surface, "texture 1");
  EXPECT_THAT(frames_, SizeIs(1));
}

TEST_F(PictureToPacket, EachSurfaceOfTheEncoderHasItsView) {
  codec().encoders["h264_nvenc"] = {AV_CODEC_ID_H264, {AV_PIX_FMT_D3D11}};
  begin_session();
  codec().holds_frames = true;
  picture();
  picture();
  codec().held.clear();
  picture();
  EXPECT_THAT(frames_, SizeIs(3));
  EXPECT_EQ(gpu_.output_views.size(), 2u);
  EXPECT_NE(codec().sent[0].surface, codec().sent[1].surface);
}

TEST_F(PictureToPacket, PictureIsReadBackForAnEncoderOfSystemMemory) {
  gpu_.mapped_pitch = 1280;
  gpu_.mapped_pixels.assign(1280 * 720 * 3 / 2, 77);
  codec().encoders["h264_qsv"] = {AV_CODEC_ID_H264, {AV_PIX_FMT_NV12, AV_PIX_FMT_QSV}};
  begin_session();
  EXPECT_EQ(active_.encoder, "h264_qsv");
  picture();
  ASSERT_THAT(codec().sent, SizeIs(1));
  EXPECT_EQ(codec().sent[0].luma.back(), 77);
  EXPECT_EQ(codec().sent[0].chroma_rows.back(), 77);
  EXPECT_THAT(frames_, SizeIs(1));
}

TEST_F(PictureToPacket, NewRateReopensAnEncoderOnNewSurfaces) {
  codec().encoders["h264_amf"] = {AV_CODEC_ID_H264, {AV_PIX_FMT_NV12, AV_PIX_FMT_D3D11}};
  begin_session();
  requests_.bitrate_kbps = 5000;
  picture();
  EXPECT_EQ(log_.count("video: bitrate -> 5000 kbps (reopening h264_amf)"), 1);
  EXPECT_EQ(codec().opened.back().context->bit_rate, 5'000'000);
  EXPECT_EQ(gpu_.output_views.size(), 2u) << "views of the former encoder are forgotten";
  ASSERT_THAT(frames_, SizeIs(1));
  EXPECT_TRUE(frames_[0].keyframe);
}

TEST_F(PictureToPacket, LostDuplicationGivesAllBackAndTheSameEncoderComesBack) {
  codec().encoders["h264_nvenc"] = {AV_CODEC_ID_H264, {AV_PIX_FMT_D3D11}};
  begin_session();
  codec().encoders["hevc_nvenc"] = {AV_CODEC_ID_HEVC, {AV_PIX_FMT_D3D11}};
  gpu_.next_frame().result = DXGI_ERROR_ACCESS_LOST;
  ASSERT_TRUE(pass());
  EXPECT_EQ(gpu_.device.references(), 0);
  EXPECT_EQ(gpu_.context.references(), 0);
  EXPECT_EQ(gpu_.video_context.references(), 0);
  gpu_.next_frame();
  pass_until_frames(1);
  EXPECT_EQ(codec().opened.back().name, "h264_nvenc") << "the client's decoder is for it";
  EXPECT_THAT(fatal(), IsEmpty());
}

TEST_F(PictureToPacket, LostEncoderEndsTheSession) {
  codec().encoders["h264_nvenc"] = {AV_CODEC_ID_H264, {AV_PIX_FMT_D3D11}};
  begin_session();
  codec().encoders["h264_nvenc"].open_result = AVERROR_EXTERNAL;
  gpu_.removed_reason = DXGI_ERROR_DEVICE_REMOVED;
  ASSERT_TRUE(pass());
  gpu_.removed_reason = S_OK;
  EXPECT_FALSE(pass());
  EXPECT_THAT(
      fatal(),
      ElementsAre("negotiated hardware encoder/capture no longer works; reconnect required"));
  EXPECT_EQ(gpu_.device.references(), 0);
}

}  // namespace
