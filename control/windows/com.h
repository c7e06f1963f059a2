// COM as the tree uses it: counted pointers, and a thread's membership.
#pragma once

#include "control/windows/handles.h"
// After what handles.h includes.
#include <wrl/client.h>

// mingw-w64's Attach adds a reference, where Microsoft's takes over the one that it is given: so
// nobody attaches. What gives a reference out gets a pointer's address.
template <class Interface>
class ComPtr : public Microsoft::WRL::ComPtr<Interface> {
 public:
  using Microsoft::WRL::ComPtr<Interface>::ComPtr;
  void Attach(Interface*) = delete;
};

// The calling thread is in an apartment for this object's life. Declared ahead of every ComPtr of
// its scope, so that it goes last.
class ComThread {
 public:
  explicit ComThread(DWORD model = COINIT_MULTITHREADED)
      : entered_(SUCCEEDED(CoInitializeEx(nullptr, model))) {}
  ~ComThread() {
    if (entered_) CoUninitialize();
  }
  ComThread(const ComThread&) = delete;
  ComThread& operator=(const ComThread&) = delete;

 private:
  const bool entered_;  // false as well where the thread is in another kind of apartment already
};
