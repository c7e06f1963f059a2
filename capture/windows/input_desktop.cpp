#include "capture/windows/input_desktop.h"

#include <iterator>

DesktopHandle open_input_desktop(ACCESS_MASK access) {
  return DesktopHandle(OpenInputDesktop(0, FALSE, access));
}

bool read_desktop_name(HDESK desktop, std::string* name) {
  wchar_t wide[256];
  // A UTF-16 unit is three bytes at most.
  char utf8[3 * std::size(wide)];
  DWORD used = 0;
  if (!GetUserObjectInformationW(desktop, UOI_NAME, wide, sizeof(wide), &used)) return false;
  const int size = WideCharToMultiByte(CP_UTF8, 0, wide, -1, utf8, sizeof(utf8), nullptr, nullptr);
  if (size <= 0) return false;
  name->assign(utf8, static_cast<std::size_t>(size - 1));  // ends with a zero
  return true;
}
