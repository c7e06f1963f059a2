#include "apps/client/view/alt_gr.h"
#include "control/windows/handles.h"

// A hook of our own, since only there the scan code is whole: a window message has its lower 8
// bits, which are a real Left Ctrl's, and while SDL grabs the keyboard its hook keeps both keys, so
// that there is no message at all. Asked first is the hook that was set last, and SDL's passes no
// Ctrl on: hence it is set anew after SDL's. It is there only while a window has the focus: every
// key of every program waits for it.
namespace {

using Hook = Owned<NullableKind<HHOOK, UnhookWindowsHookEx>>;

// The focus moves ahead of the events that tell of it.
bool in_front() {
  const HWND window = GetForegroundWindow();
  return window && GetWindowThreadProcessId(window, nullptr) == GetCurrentThreadId();
}

LRESULT CALLBACK hooked(int code, WPARAM message, LPARAM event) {
  if (code == HC_ACTION) {
    const auto& seen = *reinterpret_cast<const KBDLLHOOKSTRUCT*>(event);
    const HookedKey key{seen.scanCode, (seen.flags & LLKHF_UP) != 0};
    if (is_alt_grs_ctrl_to_drop(key, in_front(), GetAsyncKeyState(VK_LCONTROL) < 0)) return 1;
  }
  return CallNextHookEx(nullptr, code, message, event);
}

Hook& hook() {
  static Hook set;
  return set;
}

}  // namespace

void AltGrFilter::want(bool wanted) {
  hook() = wanted ? Hook(SetWindowsHookExW(WH_KEYBOARD_LL, hooked, GetModuleHandleW(nullptr), 0))
                  : Hook();
}
