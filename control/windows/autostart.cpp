// The user's own Run value: a command line that Windows starts when the user logs in.
#include "control/autostart.h"

#include <optional>

#include "control/log.h"
#include "control/sysinfo.h"
#include "control/windows/handles.h"
#include "control/windows/wide_text.h"

namespace {

constexpr const wchar_t* RUN_KEY = L"Software\\Microsoft\\Windows\\CurrentVersion\\Run";
constexpr const wchar_t* RUN_VALUE = L"Lunderhaze";
constexpr const char* SHOWN_VALUE = "the value \"Lunderhaze\" of the registry's Run key";
constexpr DWORD VALUE_LIMIT_BYTES = 1040;

struct StoredCommand {
  LSTATUS status = ERROR_SUCCESS;
  std::wstring text;
};

StoredCommand stored_command() {
  wchar_t buffer[VALUE_LIMIT_BYTES / sizeof(wchar_t)] = {};
  DWORD bytes = sizeof(buffer);
  const LSTATUS status =
      RegGetValueW(HKEY_CURRENT_USER, RUN_KEY, RUN_VALUE, RRF_RT_REG_SZ, nullptr, buffer, &bytes);
  return {status, status == ERROR_SUCCESS ? buffer : L""};
}

bool starts_this(const std::wstring& command) {
  const std::wstring self = exe_path().native();
  return !self.empty() && command.find(self) != std::wstring::npos;
}

bool fail(std::string* text, const std::string& what, LSTATUS status) {
  *text = what + " (error " + std::to_string(status) + ")";
  hlog("autostart: %s", text->c_str());
  return false;
}

LSTATUS write_command(const std::wstring& command) {
  RegistryKey key;
  const LSTATUS opened = RegCreateKeyExW(HKEY_CURRENT_USER, RUN_KEY, 0, nullptr, 0, KEY_SET_VALUE,
                                         nullptr, key.receive(), nullptr);
  if (opened != ERROR_SUCCESS) return opened;
  const DWORD bytes = static_cast<DWORD>((command.size() + 1) * sizeof(wchar_t));
  // A longer one would be written and never be read again.
  if (bytes > VALUE_LIMIT_BYTES) return ERROR_FILENAME_EXCED_RANGE;
  return RegSetValueExW(key.get(), RUN_VALUE, 0, REG_SZ,
                        reinterpret_cast<const BYTE*>(command.c_str()), bytes);
}

LSTATUS remove_command() {
  RegistryKey key;
  LSTATUS status = RegCreateKeyExW(HKEY_CURRENT_USER, RUN_KEY, 0, nullptr, 0, KEY_SET_VALUE,
                                   nullptr, key.receive(), nullptr);
  if (status == ERROR_SUCCESS) status = RegDeleteValueW(key.get(), RUN_VALUE);
  return status == ERROR_FILE_NOT_FOUND ? ERROR_SUCCESS : status;
}

// What stands there, when it isn't a command of this executable's.
std::string foreign_command() {
  const StoredCommand stored = stored_command();
  if (stored.status == ERROR_FILE_NOT_FOUND || starts_this(stored.text)) return {};
  if (stored.status != ERROR_SUCCESS) return "something that could not be read";
  return "an entry that started " + to_utf8(stored.text);
}

}  // namespace

bool autostart_enabled() {
  return starts_this(stored_command().text);
}

bool set_autostart(bool enabled, std::string* text) {
  std::string unread;
  if (text == nullptr) text = &unread;
  text->clear();
  const std::string foreign = foreign_command();
  const LSTATUS status =
      enabled ? write_command(L"\"" + exe_path().native() + L"\"") : remove_command();
  if (status != ERROR_SUCCESS)
    return fail(text, std::string(enabled ? "could not write " : "could not remove ") + SHOWN_VALUE,
                status);
  if (!foreign.empty()) {
    *text = std::string(SHOWN_VALUE) +
            (enabled ? " was replaced: it was " : " was removed: it was ") + foreign;
    hlog("autostart: %s", text->c_str());
  }
  return true;
}
