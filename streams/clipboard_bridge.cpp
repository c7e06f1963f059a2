#include "streams/clipboard_bridge.h"

#include <atomic>
#include <mutex>
#include <system_error>
#include <thread>
#include <utility>

#include "control/wake_event.h"
#include "streams/clipboard.h"
#include "streams/clipboard_listener.h"

namespace {

constexpr std::uint32_t START_MS = 5'000;
constexpr std::uint32_t STOP_MS = 5'000;

}  // namespace

struct ClipboardSync::Core {
  Core(std::unique_ptr<ClipboardAccess> with, ClipboardLog to, bool enabled)
      : access(std::move(with)),
        log(std::move(to)),
        listener(*access, enabled, log, [this](auto kind, auto bytes) {
          const std::lock_guard lock(engine_mutex);
          lund_clip_offer(engine, kind, bytes.data(), bytes.size());
        }) {}

  void run();
  bool make_engine();
  void end_engine();

  // The engine's callbacks; `user` is the core.
  static void send_packet(void* user, const std::uint8_t* packet, std::uint64_t length);
  static void take_item(void* user, std::uint32_t id, std::uint8_t kind, std::uint8_t* data,
                        std::uint64_t size);
  static void log_line(void* user, const char* text);

  const std::unique_ptr<ClipboardAccess> access;
  const ClipboardLog log;
  ClipboardListener listener;

  // The mutex is against the engine's end while the listener offers; other callers stay away from
  // stop, but may come before the engine is there.
  std::mutex engine_mutex;
  std::atomic<lund_clip*> engine{nullptr};

  std::mutex send_mutex;
  Send send;

  std::thread thread;
  WakeEvent ready{WakeEvent::Reset::Manual};  // the clipboard is there, or there is none
  WakeEvent finished{WakeEvent::Reset::Manual};
  std::atomic<bool> listening{false};
  std::atomic<bool> stopping{false};
};

void ClipboardSync::Core::run() {
  listening = access->start(log);
  if (listening && !access->has_pictures()) {
    log(std::string("clipboard: ") + access->traits().picture_library +
        " is not available; images are not synced");
  }
  ready.set();
  while (listening && !stopping) listener.step();
  listening = false;
  access->finish();
  finished.set();
}

bool ClipboardSync::Core::make_engine() {
  const lund_clip_config config = {
      .send = send_packet, .on_data = take_item, .log = log_line, .user = this, .rate = 0};
  engine = lund_clip_create(&config);
  return engine != nullptr;
}

void ClipboardSync::Core::end_engine() {
  lund_clip* ended = nullptr;
  {
    const std::lock_guard lock(engine_mutex);
    ended = engine.exchange(nullptr);
  }
  lund_clip_destroy(ended);
}

void ClipboardSync::Core::send_packet(void* user, const std::uint8_t* packet,
                                      std::uint64_t length) {
  auto* core = static_cast<Core*>(user);
  const std::lock_guard lock(core->send_mutex);
  if (core->send) core->send(packet, length);
}

void ClipboardSync::Core::take_item(void* user, std::uint32_t id, std::uint8_t kind,
                                    std::uint8_t* data, std::uint64_t size) {
  auto* core = static_cast<Core*>(user);
  IncomingItem item{.id = id, .kind = kind, .data = nullptr, .size = size};
  item.data.reset(data);
  if (!core->listening) return;
  core->listener.post(std::move(item));
  core->access->wake();
}

void ClipboardSync::Core::log_line(void* user, const char* text) {
  static_cast<Core*>(user)->log(text);
}

ClipboardSync::ClipboardSync(std::unique_ptr<ClipboardAccess> access, ClipboardLog log,
                             bool enabled)
    : core_(std::make_shared<Core>(std::move(access), std::move(log), enabled)) {}

ClipboardSync::~ClipboardSync() {
  stop();
}

bool ClipboardSync::start() {
  if (core_->thread.joinable()) return true;
  try {
    core_->thread = std::thread([core = core_] { core->run(); });
  } catch (const std::system_error&) {
    return false;
  }
  core_->ready.wait(START_MS);
  return core_->make_engine() && core_->listening;
}

void ClipboardSync::stop() {
  core_->end_engine();
  if (!core_->thread.joinable()) return;
  core_->stopping = true;
  core_->listener.stop();
  core_->access->interrupt();
  if (core_->finished.wait(STOP_MS)) {
    core_->thread.join();
  } else {
    core_->thread.detach();
  }
}

void ClipboardSync::set_enabled(bool enabled) {
  core_->listener.set_enabled(enabled);
}

bool ClipboardSync::enabled() const {
  return core_->listener.enabled();
}

void ClipboardSync::session_up(std::uint32_t session, std::uint64_t payload, Send send) {
  {
    const std::lock_guard lock(core_->send_mutex);
    core_->send = std::move(send);
    core_->listener.set_session(session);
  }
  lund_clip_set_session(core_->engine, session, payload);
}

void ClipboardSync::resize(std::uint32_t session, std::uint64_t payload) {
  {
    const std::lock_guard lock(core_->send_mutex);
    if (!core_->send || session != core_->listener.session()) return;
  }
  lund_clip_set_session(core_->engine, session, payload);
}

void ClipboardSync::session_down(std::uint32_t session) {
  {
    const std::lock_guard lock(core_->send_mutex);
    if (session != 0 && session != core_->listener.session()) return;
    core_->send = nullptr;
    core_->listener.set_session(0);
  }
  lund_clip_set_session(core_->engine, 0, 0);
}

void ClipboardSync::receive(const std::uint8_t* packet, std::uint64_t length) {
  lund_clip_receive(core_->engine, packet, length);
}
