// What is listed of adapters and their outputs, and when they are listed anew, on a made-up DXGI.
// GDI's view is that of the desktop that the tests run on.
#include "capture/windows/display_watch.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cwchar>
#include <optional>

#include "capture/windows/display_lists.h"
#include "tests/support/windows/fake_com.h"

namespace {

using fake_com::Object;
using testing::IsEmpty;

template <class Interface>
auto one_by_one(std::vector<Object*> objects) {
  return [objects](UINT index, Interface** out) -> HRESULT {
    return index < objects.size() ? objects[index]->give(out) : DXGI_ERROR_NOT_FOUND;
  };
}

class AdapterOutputs : public testing::Test {
 protected:
  AdapterOutputs() {
    api_.create_factory = [this](REFIID, void** out) -> HRESULT {
      ++factories_;
      if (!dxgi_) return E_FAIL;
      return factory_.give(reinterpret_cast<IDXGIFactory1**>(out));
    };
    factory_.on<&IDXGIFactory1::IsCurrent>([this] { return BOOL{current_}; });
  }
  void TearDown() override { EXPECT_THAT(stage_.complaints(), IsEmpty()); }

  Object& output(const wchar_t* device, RECT place, BOOL attached = TRUE) {
    Object& made = stage_.make<IDXGIOutput>("output");
    made.on<&IDXGIOutput::GetDesc>([=](DXGI_OUTPUT_DESC* desc) -> HRESULT {
      *desc = {};
      std::wcscpy(desc->DeviceName, device);
      desc->DesktopCoordinates = place;
      desc->AttachedToDesktop = attached;
      desc->Rotation = DXGI_MODE_ROTATION_ROTATE90;
      return S_OK;
    });
    return made;
  }
  Object& adapter(const wchar_t* description, DWORD luid, std::vector<Object*> outputs) {
    Object& made = stage_.make<IDXGIAdapter1, IDXGIAdapter>("adapter");
    made.on<&IDXGIAdapter1::GetDesc>([=](DXGI_ADAPTER_DESC* desc) -> HRESULT {
      *desc = {};
      std::wcscpy(desc->Description, description);
      desc->AdapterLuid = {luid, -7};
      return S_OK;
    });
    made.on<&IDXGIAdapter1::EnumOutputs>(one_by_one<IDXGIOutput>(std::move(outputs)));
    return made;
  }
  void list(std::vector<Object*> adapters) {
    factory_.on<&IDXGIFactory1::EnumAdapters1>(one_by_one<IDXGIAdapter1>(std::move(adapters)));
  }
  std::vector<DisplayInfo> outputs() { return adapter_outputs(display_factory(api_).Get()); }

  fake_com::Stage stage_;
  Object& factory_ = stage_.make<IDXGIFactory1>("factory");
  Direct3d api_;
  bool dxgi_ = true;
  bool current_ = true;
  int factories_ = 0;
};

TEST_F(AdapterOutputs, AreListedInOrderWithTheirAdapter) {
  list(
      {&adapter(L"First", 11, {&output(LR"(\\.\DISPLAY7)", {0, 0, 1920, 1080})}),
       &adapter(L"Zweite Gr\u00e4fik", 12, {&output(LR"(\\.\DISPLAY8)", {1920, -40, 3200, 680})})});
  const auto listed = outputs();
  ASSERT_EQ(listed.size(), 2u);
  EXPECT_EQ(listed[0].device, R"(\\.\DISPLAY7)");
  EXPECT_EQ(listed[1].device, R"(\\.\DISPLAY8)");
  EXPECT_EQ(listed[1].name, "Zweite Gr\u00e4fik");
  EXPECT_TRUE(listed[1].has_adapter);
  EXPECT_EQ(listed[1].adapter_luid_low, 12u);
  EXPECT_EQ(listed[1].adapter_luid_high, -7);
  EXPECT_EQ(listed[1].left, 1920);
  EXPECT_EQ(listed[1].top, -40);
  EXPECT_EQ(listed[1].right, 3200);
  EXPECT_EQ(listed[1].bottom, 680);
  EXPECT_EQ(listed[1].rotation, 2);
  EXPECT_FALSE(listed[1].primary) << "no monitor of GDI's stands behind it";
  EXPECT_EQ(listed[1].refresh_hz, 0);
}

TEST_F(AdapterOutputs, DetachedOutputIsSkipped) {
  list(
      {&adapter(L"Adapter", 11,
                {&output(L"DETACHED", {0, 0, 10, 10}, FALSE), &output(L"SHOWN", {0, 0, 10, 10})})});
  ASSERT_EQ(outputs().size(), 1u);
  EXPECT_EQ(outputs()[0].device, "SHOWN");
}

TEST_F(AdapterOutputs, OutputOfTwoAdaptersIsTheFirsts) {
  list({&adapter(L"First", 11, {&output(L"SHARED", {0, 0, 10, 10})}),
        &adapter(L"Second", 12, {&output(L"SHARED", {0, 0, 10, 10})})});
  EXPECT_EQ(outputs().size(), 2u);
  const auto merged = merge_displays(outputs(), {}, {});
  ASSERT_EQ(merged.size(), 1u);
  EXPECT_EQ(merged[0].name, "First");
}

TEST_F(AdapterOutputs, OutputsThatCannotBeDescribedAreSkipped) {
  list({&adapter(L"Adapter", 11, {&output(L"ONE", {0, 0, 1, 1}), &output(L"TWO", {0, 0, 1, 1})})});
  stage_.fail<&IDXGIOutput::GetDesc>(DXGI_ERROR_DEVICE_REMOVED);
  ASSERT_EQ(outputs().size(), 1u);
  stage_.fail<&IDXGIAdapter1::GetDesc>(DXGI_ERROR_DEVICE_REMOVED);
  EXPECT_TRUE(outputs().empty());
}

TEST_F(AdapterOutputs, WithoutDxgiAreNone) {
  dxgi_ = false;
  EXPECT_EQ(display_factory(api_), nullptr);
  EXPECT_TRUE(outputs().empty());
}

class WatchedDisplays : public AdapterOutputs {
 protected:
  WatchedDisplays() { list({&adapter(L"Adapter", 11, {&output(L"MADE-UP", {0, 0, 1920, 1080})})}); }
  void TearDown() override {
    watch_.reset();
    AdapterOutputs::TearDown();
  }
  bool find(const char* device) { return watch_->find(device, &found_); }

  std::optional<DisplayWatch> watch_{api_};
  DisplayInfo found_;
};

TEST_F(WatchedDisplays, AreEnumeratedOnceWhileNothingChanges) {
  for (int i = 0; i < 5; ++i) ASSERT_TRUE(find("made-up"));
  EXPECT_EQ(found_.width, 1920);
  EXPECT_TRUE(found_.has_adapter);
  EXPECT_FALSE(find("ELSEWHERE"));
  ASSERT_TRUE(find(R"(\\.\DISPLAY1)")) << "GDI's own";
  EXPECT_FALSE(found_.has_adapter);
  EXPECT_EQ(factories_, 1);
}

TEST_F(WatchedDisplays, AreEnumeratedAnewWhenTheFactoryKnowsOfAChange) {
  ASSERT_TRUE(find("MADE-UP"));
  list({});
  current_ = false;
  EXPECT_FALSE(find("MADE-UP"));
  EXPECT_EQ(factories_, 2);
}

TEST_F(WatchedDisplays, WithoutDxgiAreGdisAndDxgiIsTriedAgain) {
  dxgi_ = false;
  EXPECT_FALSE(find("MADE-UP"));
  EXPECT_TRUE(find(R"(\\.\DISPLAY1)"));
  dxgi_ = true;
  EXPECT_TRUE(find("MADE-UP"));
}

}  // namespace
