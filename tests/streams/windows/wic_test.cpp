// What the imaging component is asked for a PNG and for a smaller picture, on a component that a
// test makes up: every call, its arguments, what becomes of its failure, and that nothing of it is
// kept.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <string>
#include <vector>

#include "streams/png_codec.h"
#include "streams/windows/wic.h"
#include "tests/streams/png_builder.h"
#include "tests/support/windows/fake_com.h"
#include "tests/support/windows/recorded_calls.h"

using testing::ElementsAre;
using testing::IsEmpty;
using Bytes = std::vector<std::uint8_t>;

namespace {

const Image PICTURE{2, 1, {1, 2, 3, 4, 5, 6, 7, 8}};
const Bytes ENCODED{'e', 'n', 'c', 'o', 'd', 'e', 'd'};

Bytes small_png() {
  return PngBuilder{}.build(1, 1, {9, 9, 9});
}

std::string format_name(const GUID& format) {
  if (IsEqualGUID(format, GUID_WICPixelFormat32bppBGRA)) return "BGRA";
  if (IsEqualGUID(format, GUID_WICPixelFormat32bppPBGRA)) return "PBGRA";
  return "another format";
}

std::string number(std::uint64_t value) {
  return std::to_string(value);
}

class FakeWic {
 public:
  FakeWic() {
    encode();
    decode();
    scale();
  }

  // In place of the component's function of the same name.
  HRESULT convert(const GUID& to, IWICBitmapSource* source, IWICBitmapSource** out) {
    const std::string call = "convert to " + format_name(to);
    said.push_back(call + " " + fake_com::Object::of(source).name());
    stage.call(call);
    if (const auto failure = stage.injected(call)) return *failure;
    return source == bitmap_.as<IWICBitmapSource>() ? multiplied_.give(out) : converted_.give(out);
  }
  IWICImagingFactory* factory() {
    IWICImagingFactory* given = nullptr;
    factory_.give(&given);
    return given;
  }

  fake_com::Stage stage;
  std::vector<std::string> said;               // the arguments, call by call
  GUID format = GUID_WICPixelFormat32bppBGRA;  // of the frame, whatever is asked for
  UINT width = 2;                              // of what comes out of a conversion
  UINT height = 1;

 private:
  void encode() {
    factory_.on<&IWICImagingFactory::CreateEncoder>(
        [this](const GUID& container, const GUID* vendor, IWICBitmapEncoder** out) {
          said.push_back(IsEqualGUID(container, GUID_ContainerFormatPng) && vendor == nullptr
                             ? "encoder of PNG"
                             : "another encoder");
          return encoder_.give(out);
        });
    encoder_.on<&IWICBitmapEncoder::Initialize>(
        [this](IStream* stream, WICBitmapEncoderCacheOption cache) {
          stream_ = stream;
          said.push_back("cache " + number(cache));
          return S_OK;
        });
    encoder_.on<&IWICBitmapEncoder::CreateNewFrame>(
        [this](IWICBitmapFrameEncode** out, IPropertyBag2** options) {
          EXPECT_EQ(options, nullptr);
          return frame_.give(out);
        });
    encoder_.on<&IWICBitmapEncoder::Commit>([this] {
      return stream_->Write(ENCODED.data(), static_cast<ULONG>(ENCODED.size()), nullptr);
    });
    frame_.on<&IWICBitmapFrameEncode::Initialize>([](IPropertyBag2* options) {
      EXPECT_EQ(options, nullptr);
      return S_OK;
    });
    frame_.on<&IWICBitmapFrameEncode::SetSize>([this](UINT x, UINT y) {
      said.push_back("size " + number(x) + "x" + number(y));
      return S_OK;
    });
    frame_.on<&IWICBitmapFrameEncode::SetPixelFormat>([this](WICPixelFormatGUID* asked) {
      said.push_back("format " + format_name(*asked));
      *asked = format;
      return S_OK;
    });
    frame_.on<&IWICBitmapFrameEncode::WritePixels>(
        [this](UINT rows, UINT stride, UINT size, BYTE* bytes) {
          EXPECT_EQ(Bytes(bytes, bytes + size), PICTURE.pixels);
          said.push_back(number(rows) + " rows of " + number(stride));
          return S_OK;
        });
    frame_.on<&IWICBitmapFrameEncode::Commit>([] { return S_OK; });
  }

  void decode() {
    factory_.on<&IWICImagingFactory::CreateStream>(
        [this](IWICStream** out) { return bytes_.give(out); });
    bytes_.on<&IWICStream::InitializeFromMemory>([this](BYTE* bytes, DWORD size) {
      said.push_back("of " + number(size) + " bytes that begin with " + number(bytes[0]));
      return S_OK;
    });
    factory_.on<&IWICImagingFactory::CreateDecoderFromStream>(
        [this](IStream* stream, const GUID* vendor, WICDecodeOptions options,
               IWICBitmapDecoder** out) {
          EXPECT_EQ(stream, bytes_.as<IStream>());
          EXPECT_EQ(vendor, nullptr);
          EXPECT_EQ(options, WICDecodeMetadataCacheOnDemand);
          return decoder_.give(out);
        });
    decoder_.on<&IWICBitmapDecoder::GetFrame>([this](UINT index, IWICBitmapFrameDecode** out) {
      said.push_back("frame " + number(index));
      return decoded_.give(out);
    });
    converted_.on<&IWICBitmapSource::GetSize>([this](UINT* x, UINT* y) {
      *x = width;
      *y = height;
      return S_OK;
    });
    converted_.on<&IWICBitmapSource::CopyPixels>(
        [this](const WICRect* part, UINT stride, UINT size, BYTE* out) {
          said.push_back(std::string(part == nullptr ? "all" : "a part") + ", rows of " +
                         number(stride));
          EXPECT_EQ(size, PICTURE.pixels.size());
          std::ranges::copy(PICTURE.pixels, out);
          return S_OK;
        });
  }

  void scale() {
    factory_.on<&IWICImagingFactory::CreateBitmapFromMemory>([this](UINT x, UINT y, const GUID& of,
                                                                    UINT stride, UINT size,
                                                                    BYTE* bytes, IWICBitmap** out) {
      EXPECT_EQ(Bytes(bytes, bytes + size), PICTURE.pixels);
      said.push_back("bitmap " + number(x) + "x" + number(y) + " of " + format_name(of) +
                     ", rows of " + number(stride));
      return bitmap_.give(out);
    });
    factory_.on<&IWICImagingFactory::CreateBitmapScaler>(
        [this](IWICBitmapScaler** out) { return scaler_.give(out); });
    scaler_.on<&IWICBitmapScaler::Initialize>(
        [this](IWICBitmapSource* of, UINT x, UINT y, WICBitmapInterpolationMode mode) {
          said.push_back("scale " + fake_com::Object::of(of).name() + " to " + number(x) + "x" +
                         number(y) + " by " + number(mode));
          return S_OK;
        });
  }

  fake_com::Object& factory_ = stage.make<IWICImagingFactory>("factory");
  fake_com::Object& encoder_ = stage.make<IWICBitmapEncoder>("encoder");
  fake_com::Object& frame_ = stage.make<IWICBitmapFrameEncode>("frame");
  fake_com::Object& bytes_ = stage.make<IWICStream, IStream>("bytes");
  fake_com::Object& decoder_ = stage.make<IWICBitmapDecoder>("decoder");
  fake_com::Object& decoded_ = stage.make<IWICBitmapFrameDecode, IWICBitmapSource>("decoded");
  fake_com::Object& converted_ = stage.make<IWICBitmapSource>("converted");
  fake_com::Object& bitmap_ = stage.make<IWICBitmap, IWICBitmapSource>("bitmap");
  fake_com::Object& multiplied_ = stage.make<IWICBitmapSource>("multiplied");
  fake_com::Object& scaler_ = stage.make<IWICBitmapScaler, IWICBitmapSource>("scaler");
  IStream* stream_ = nullptr;
};

FakeWic* g_wic = nullptr;  // null: the system's own

HRESULT WINAPI create(const IID& type, IUnknown* outer, DWORD context, const IID& wanted,
                      void** out) {
  static auto* const pass = system_function(L"ole32.dll", "CoCreateInstance", &create);
  if (g_wic == nullptr || !IsEqualCLSID(type, CLSID_WICImagingFactory))
    return pass(type, outer, context, wanted, out);
  *out = nullptr;
  if (RecordedCalls::refuse("factory in context " + number(context)))
    return static_cast<HRESULT>(GetLastError());
  *out = g_wic->factory();
  return S_OK;
}

HRESULT WINAPI make_stream(HGLOBAL memory, BOOL free_it, IStream** out) {
  static auto* const pass = system_function(L"ole32.dll", "CreateStreamOnHGlobal", &make_stream);
  return RecordedCalls::refuse(std::string("stream that ") + (free_it ? "frees" : "keeps") +
                               " its memory")
             ? E_OUTOFMEMORY
             : pass(memory, free_it, out);
}

}  // namespace

extern "C" {
decltype(&create) __imp_CoCreateInstance = create;
decltype(&make_stream) __imp_CreateStreamOnHGlobal = make_stream;

// Callers have this one by its name.
HRESULT WINAPI WICConvertBitmapSource(REFWICPixelFormatGUID format, IWICBitmapSource* source,
                                      IWICBitmapSource** out) {
  static auto* const pass =
      system_function(L"windowscodecs.dll", "WICConvertBitmapSource", &WICConvertBitmapSource);
  return g_wic != nullptr ? g_wic->convert(format, source, out) : pass(format, source, out);
}
}

namespace {

class WicCalls : public testing::Test {
 protected:
  WicCalls() { g_wic = &wic_; }
  ~WicCalls() override { g_wic = nullptr; }
  void TearDown() override { EXPECT_THAT(wic_.stage.complaints(), IsEmpty()); }

  bool encodes() { return encode_png(PICTURE, &png_); }
  bool decodes() { return decode_png(small_png(), &image_); }
  bool scales() { return scale_image(PICTURE, 1, 1, &image_); }

  // The work fails with any of its calls, and with none of them otherwise.
  template <class Work>
  void fails_with_each(const Work& work) {
    ASSERT_TRUE(work());
    for (const std::string& call : wic_.stage.take_calls()) {
      wic_.stage.fail(call, E_FAIL);
      EXPECT_FALSE(work()) << call;
      EXPECT_THAT(wic_.stage.complaints(), IsEmpty()) << call;
    }
    calls_.fail("factory", static_cast<DWORD>(REGDB_E_CLASSNOTREG), 1);
    EXPECT_FALSE(work());
  }

  FakeWic wic_;
  RecordedCalls calls_;
  Bytes png_;
  Image image_;
};

TEST_F(WicCalls, APictureIsEncodedAsOneFrameWithoutACacheIntoMemoryThatGrows) {
  ASSERT_TRUE(encodes());
  EXPECT_EQ(png_, ENCODED);
  EXPECT_THAT(calls_.take(), ElementsAre("factory in context 1", "stream that frees its memory"));
  EXPECT_THAT(wic_.said,
              ElementsAre("encoder of PNG", "cache 2", "size 2x1", "format BGRA", "1 rows of 8"));
}

TEST_F(WicCalls, AFailureOfAnyCallIsOneOfTheEncoding) {
  fails_with_each([this] { return encodes(); });
  calls_.fail("stream", static_cast<DWORD>(E_OUTOFMEMORY), 1);
  EXPECT_FALSE(encodes());
}

TEST_F(WicCalls, AFrameOfAnotherFormatThanItWasAskedForIsAFailure) {
  wic_.format = GUID_WICPixelFormat32bppPBGRA;
  EXPECT_FALSE(encodes());
  EXPECT_THAT(wic_.said, ElementsAre("encoder of PNG", "cache 2", "size 2x1", "format BGRA"));
}

TEST_F(WicCalls, TheFirstFrameOfAPngIsDecodedToStraightAlpha) {
  ASSERT_TRUE(decodes());
  EXPECT_EQ(image_.width, 2u);
  EXPECT_EQ(image_.height, 1u);
  EXPECT_EQ(image_.pixels, PICTURE.pixels);
  EXPECT_THAT(wic_.said,
              ElementsAre("of " + number(small_png().size()) + " bytes that begin with 137",
                          "frame 0", "convert to BGRA decoded", "all, rows of 8"));
}

TEST_F(WicCalls, AFailureOfAnyCallIsOneOfTheDecoding) {
  fails_with_each([this] { return decodes(); });
}

TEST_F(WicCalls, APictureWithoutASideOrWithTooManyPixelsIsNoneWhateverItsFileSaid) {
  for (const auto& [width, height] : std::vector<std::pair<UINT, UINT>>{
           {0, 1}, {1, 0}, {0x10000001, 1}, {0x4001, 0x4000}, {0xFFFFFFFF, 0xFFFFFFFF}}) {
    wic_.width = width;
    wic_.height = height;
    wic_.stage.take_calls();
    EXPECT_FALSE(decodes());
    EXPECT_EQ(wic_.stage.count("IWICBitmapSource::CopyPixels"), 0);
  }
}

TEST_F(WicCalls, APictureIsScaledByFantFromWhatAlphaHasWeighted) {
  ASSERT_TRUE(scales());
  EXPECT_EQ(image_.pixels, PICTURE.pixels);
  EXPECT_THAT(wic_.said, ElementsAre("bitmap 2x1 of BGRA, rows of 8", "convert to PBGRA bitmap",
                                     "scale multiplied to 1x1 by 3", "convert to BGRA scaler",
                                     "all, rows of 8"));
}

TEST_F(WicCalls, AFailureOfAnyCallIsOneOfTheScaling) {
  fails_with_each([this] { return scales(); });
}

}  // namespace
