// What Windows gives out and takes back, each with one owner. The kinds that more than one file
// uses are named here; others are made of the same template beside their one use.
#pragma once

#include <winsock2.h>
// clang-format off
#include <windows.h>
#include <objbase.h>
// clang-format on

#include <utility>

// A kind says what its values are, which one stands for nothing, and who takes one back:
//   struct Kind { using Value = HKEY; static Value none(); static void close(Value); };
template <class Kind>
class Owned {
 public:
  using Value = typename Kind::Value;

  Owned() = default;
  explicit Owned(Value value) : value_(value) {}
  Owned(Owned&& other) noexcept : value_(other.release()) {}
  Owned& operator=(Owned&& other) noexcept {
    if (this != &other) reset(other.release());
    return *this;
  }
  ~Owned() { reset(); }

  Value get() const { return value_; }
  explicit operator bool() const { return value_ != Kind::none(); }
  Value release() { return std::exchange(value_, Kind::none()); }
  void reset(Value value = Kind::none()) {
    const Value former = std::exchange(value_, value);
    if (former != Kind::none()) Kind::close(former);
  }
  // For a function that gives a value out by its argument; what was held is given back first.
  Value* receive() {
    reset();
    return &value_;
  }

 private:
  Value value_ = Kind::none();
};

template <class Type, auto Close>
struct NullableKind {
  using Value = Type;
  static Value none() { return {}; }
  static void close(Value value) { Close(value); }
};
// CreateFileW and its like say INVALID_HANDLE_VALUE for nothing, most others null: `owned_file`
// makes one of both.
using Handle = Owned<NullableKind<HANDLE, CloseHandle>>;
using RegistryKey = Owned<NullableKind<HKEY, RegCloseKey>>;
using Library = Owned<NullableKind<HMODULE, FreeLibrary>>;
using ServiceHandle = Owned<NullableKind<SC_HANDLE, CloseServiceHandle>>;
using WindowHandle = Owned<NullableKind<HWND, DestroyWindow>>;
using DesktopHandle = Owned<NullableKind<HDESK, CloseDesktop>>;
using MemoryContext = Owned<NullableKind<HDC, DeleteDC>>;
using BitmapHandle = Owned<NullableKind<HBITMAP, DeleteObject>>;
// The screen's, and no window's.
using ScreenContext = Owned<NullableKind<HDC, [](HDC context) { ReleaseDC(nullptr, context); }>>;
using GlobalBlock = Owned<NullableKind<HGLOBAL, GlobalFree>>;
// Memory that an interface gave out: by LocalAlloc (security descriptors, texts of errors), by the
// COM allocator (formats, identifiers, paths).
template <class Type>
using LocalMemory = Owned<NullableKind<Type*, LocalFree>>;
template <class Type>
using ComMemory = Owned<NullableKind<Type*, CoTaskMemFree>>;

// What a context draws with or into, until it has back what it had before: an object that is
// selected can't be deleted.
class Selected {
 public:
  Selected(HDC context, HGDIOBJ object)
      : context_(context), before_(SelectObject(context, object)) {}
  ~Selected() {
    if (before_ != nullptr) SelectObject(context_, before_);
  }
  Selected(const Selected&) = delete;
  Selected& operator=(const Selected&) = delete;
  explicit operator bool() const { return before_ != nullptr; }

 private:
  const HDC context_;
  const HGDIOBJ before_;
};

inline Handle owned_file(HANDLE opened) {
  return Handle(opened == INVALID_HANDLE_VALUE ? nullptr : opened);
}
