// The autostart entry of the Desktop Application Autostart Specification:
// $XDG_CONFIG_HOME/autostart/lunderhaze.desktop.
#include "control/autostart.h"

#include <filesystem>
#include <optional>

#include "control/linux/desktop_entry.h"
#include "control/linux/user_directories.h"
#include "control/log.h"
#include "control/private_file.h"
#include "control/store_platform.h"
#include "control/sysinfo.h"

namespace {

using store_platform::Read;

constexpr std::size_t ENTRY_LIMIT_BYTES = 65'536;

// Empty for a user without a home.
std::filesystem::path entry_path() {
  const std::filesystem::path own = user_directory("XDG_CONFIG_HOME", ".config");
  return own.empty() ? own : own.parent_path() / "autostart" / "lunderhaze.desktop";
}

bool fail(std::string* text, const std::string& why) {
  *text = why;
  hlog("autostart: %s", why.c_str());
  return false;
}

// What stands there, when it isn't an entry of this executable's.
std::string foreign_entry(const std::filesystem::path& path) {
  std::string entry;
  const Read result = store_platform::read_file(path, ENTRY_LIMIT_BYTES, &entry);
  if (result == Read::Missing) return {};
  if (result == Read::Failed) return "something that could not be read";
  const std::optional<std::filesystem::path> program = entry_program(entry);
  if (!program) return "an entry that starts no program";
  return *program == exe_path() ? std::string() : "an entry that started " + program->string();
}

bool write_entry(const std::filesystem::path& path, std::string* text) {
  const std::optional<std::string> entry = desktop_entry(exe_path());
  if (!entry) return fail(text, "an entry can't hold the path " + exe_path().string());
  if (!store_platform::make_directory(path.parent_path()) ||
      !write_private_file(path, entry->data(), entry->size()))
    return fail(text, "could not write " + path.string());
  return true;
}

}  // namespace

bool autostart_enabled() {
  const std::filesystem::path path = entry_path();
  std::string entry;
  if (path.empty() || store_platform::read_file(path, ENTRY_LIMIT_BYTES, &entry) != Read::Ok)
    return false;
  const std::filesystem::path self = exe_path();
  return !self.empty() && is_started(entry) && entry_program(entry) == self;
}

bool set_autostart(bool enabled, std::string* text) {
  std::string unread;
  if (text == nullptr) text = &unread;
  text->clear();
  const std::filesystem::path path = entry_path();
  if (path.empty()) return fail(text, "this user has no home directory");
  const std::string foreign = foreign_entry(path);
  if (enabled) {
    if (!write_entry(path, text)) return false;
  } else if (!store_platform::remove_file(path)) {
    return fail(text, "could not remove " + path.string());
  }
  if (!foreign.empty()) {
    *text =
        path.string() + (enabled ? " was replaced: it was " : " was removed: it was ") + foreign;
    hlog("autostart: %s", text->c_str());
  }
  return true;
}
