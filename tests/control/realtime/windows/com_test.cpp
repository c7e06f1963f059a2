#include "control/windows/com.h"

#include <gtest/gtest.h>

#include <utility>

namespace {

// Counts the references to it, the first of which is the test's.
struct CountedObject final : IUnknown {
  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID, void**) override { return E_NOINTERFACE; }
  ULONG STDMETHODCALLTYPE AddRef() override { return ++references; }
  ULONG STDMETHODCALLTYPE Release() override { return --references; }
  ULONG references = 1;
};

// As an interface's functions do.
void give_out(CountedObject& object, IUnknown** out) {
  object.AddRef();
  *out = &object;
}

template <class Pointer>
constexpr bool attaches = requires(Pointer pointer, IUnknown* object) {
  pointer.Attach(object);
};

TEST(ComPointer, CountsWhatItIsMadeOfAndTakesOverWhatIsGivenOut) {
  CountedObject object;
  {
    const ComPtr<IUnknown> made(&object);
    EXPECT_EQ(object.references, 2u);
    ComPtr<IUnknown> given;
    give_out(object, &given);
    EXPECT_EQ(object.references, 3u);
    give_out(object, given.ReleaseAndGetAddressOf());
    EXPECT_EQ(object.references, 3u);
  }
  EXPECT_EQ(object.references, 1u);
}

TEST(ComPointer, CopiesAreCountedAndMovesArent) {
  CountedObject object;
  {
    ComPtr<IUnknown> first(&object);
    const ComPtr<IUnknown> copy = first;
    EXPECT_EQ(object.references, 3u);
    ComPtr<IUnknown> moved = std::move(first);
    EXPECT_EQ(object.references, 3u);
    EXPECT_EQ(first.Get(), nullptr);
    first = moved;
    EXPECT_EQ(object.references, 4u);
    first = nullptr;
    EXPECT_EQ(object.references, 3u);
  }
  EXPECT_EQ(object.references, 1u);
}

TEST(ComPointer, DetachGivesItsReferenceAwayAndNothingCanBeAttached) {
  CountedObject object;
  ComPtr<IUnknown> pointer(&object);
  EXPECT_EQ(pointer.Detach(), &object);
  EXPECT_EQ(object.references, 2u);
  EXPECT_EQ(pointer.Get(), nullptr);
  static_assert(!attaches<ComPtr<IUnknown>>);
  // The reason: else this header would do.
  static_assert(attaches<Microsoft::WRL::ComPtr<IUnknown>>);
  Microsoft::WRL::ComPtr<IUnknown> theirs;
  theirs.Attach(&object);
  EXPECT_EQ(object.references, 3u) << "Attach takes over now, and might be used";
}

}  // namespace
