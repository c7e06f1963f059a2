#include "control/log.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <mutex>

#include "control/keystore.h"
#include "control/log_format.h"
#include "control/log_platform.h"
#include "control/private_file.h"

namespace platform = log_platform;

std::size_t log_format_line(char (&out)[LOG_LINE_BYTES], const platform::LocalTime& time,
                            const char* message) {
  const int length = std::snprintf(out, sizeof(out), "[%04u-%02u-%02u %02u:%02u:%02u.%03u] %s\r\n",
                                   time.year, time.month, time.day, time.hour, time.minute,
                                   time.second, time.millisecond, message);
  return length < 0 ? 0 : std::min(static_cast<std::size_t>(length), sizeof(out) - 1);
}

namespace {

enum class Console { Timed, Bare };

struct Log {
  std::mutex mutex;
  bool console = false;
  std::filesystem::path path;
  platform::File file = platform::NO_FILE;
  std::int64_t size = 0;
};

// Never destroyed: threads may log until the process ends.
Log& instance() {
  static Log& log = *new Log;
  return log;
}

// What happens on a machine must be on record, out of everybody's reach: its store fails with its
// log. In the user scope failHostStore does nothing, and only the file is missing.
void open_file_locked(Log& log) {
  log.size = 0;
  if (!trusted_or_absent(log.path)) {
    keystore::failHostStore("machine log protection invalid");
    return;
  }
  switch (platform::open_append(keystore::hostStoreScope(), log.path, &log.file)) {
    case platform::Opening::Done:
      log.size = platform::file_size(log.file);
      return;
    case platform::Opening::Unprotected:
      return keystore::failHostStore("machine log security unavailable");
    case platform::Opening::Failed:
      return keystore::failHostStore("machine log open failed");
  }
}

void close_file_locked(Log& log) {
  if (log.file != platform::NO_FILE) platform::close(log.file);
  log.file = platform::NO_FILE;
}

void rotate_locked(Log& log) {
  close_file_locked(log);
  std::filesystem::path old = log.path;
  old += ".1";
  // Should this fail, the same file goes on growing: better than no log.
  platform::replace(log.path, old);
  open_file_locked(log);
}

void print(const platform::LocalTime& time, Console style, const char* message) {
  if (style == Console::Timed) {
    std::printf("[%02u:%02u:%02u.%03u] ", time.hour, time.minute, time.second, time.millisecond);
  }
  std::printf("%s\n", message);
  std::fflush(stdout);
}

void write_line_locked(Log& log, Console style, const char* message) {
  const platform::LocalTime time = platform::local_time();
  if (log.console) print(time, style, message);
  if (log.file == platform::NO_FILE) return;
  char line[LOG_LINE_BYTES];
  const std::size_t length = log_format_line(line, time, message);
  log.size += static_cast<std::int64_t>(platform::write(log.file, line, length));
  if (log.size > LOG_ROTATE_BYTES) rotate_locked(log);
}

void write_line(Console style, const char* format, std::va_list arguments) {
  char message[LOG_MESSAGE_BYTES];
  // The caller started the list; the analyzer doesn't follow it.
  // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized)
  if (std::vsnprintf(message, sizeof(message), format, arguments) < 0) return;
  Log& log = instance();
  const std::lock_guard lock(log.mutex);
  write_line_locked(log, style, message);
}

}  // namespace

void log_open(bool console, const std::filesystem::path& directory) {
  Log& log = instance();
  const std::lock_guard lock(log.mutex);
  close_file_locked(log);
  log.console = console;
  log.path = directory.empty() ? directory : directory / "host.log";
  open_file_locked(log);
  char banner[LOG_MESSAGE_BYTES];
  std::snprintf(banner, sizeof(banner), "---- Lunderhaze (%s) started (pid %lu, %s) ----",
                platform::NAME, platform::process_id(), console ? "console" : "tray");
  write_line_locked(log, Console::Timed, banner);
}

void log_open(bool console) {
  log_open(console, platform::user_log_directory());
}

void log_close() {
  Log& log = instance();
  const std::lock_guard lock(log.mutex);
  close_file_locked(log);
}

void hlog(const char* format, ...) {
  std::va_list arguments;
  va_start(arguments, format);
  write_line(Console::Timed, format, arguments);
  va_end(arguments);
}

void hsay(const char* format, ...) {
  std::va_list arguments;
  va_start(arguments, format);
  write_line(Console::Bare, format, arguments);
  va_end(arguments);
}

std::filesystem::path log_file_path() {
  Log& log = instance();
  const std::lock_guard lock(log.mutex);
  return log.path;
}
