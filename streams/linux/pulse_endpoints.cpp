#include "streams/linux/pulse_endpoints.h"

#include <utility>

#include "streams/linux/pulse_default_sink.h"

namespace {

constexpr pa_usec_t CALL_US = 2'000'000;
constexpr pa_usec_t RETRY_US = 1'000'000;
constexpr const char* MONITOR_PROPERTY = "monitor.channel-volumes";

void drop(pa_operation* operation) {
  if (operation != nullptr) pa_operation_unref(operation);
}

std::string text_of(const char* text) {
  return text == nullptr ? std::string() : text;
}

}  // namespace

// PulseAudio itself silences what it mixes for a muted sink before the monitor takes its copy, also
// where the sink has a mute control in hardware (16.1). PipeWire takes the monitor's copy before
// volume and mute, unless the sink asks for both there (0.3.65, 1.4.2).
bool monitor_outlives_mute(std::string_view server_name, std::string_view channel_volumes) {
  return server_name.find("PipeWire") != std::string_view::npos && channel_volumes != "true" &&
         channel_volumes != "1";
}

class PulseEndpoints::Lock {
 public:
  explicit Lock(pa_threaded_mainloop* mainloop) : mainloop_(mainloop) {
    pa_threaded_mainloop_lock(mainloop_);
  }
  ~Lock() { pa_threaded_mainloop_unlock(mainloop_); }
  Lock(const Lock&) = delete;
  Lock& operator=(const Lock&) = delete;

 private:
  pa_threaded_mainloop* mainloop_;
};

// Wakes whoever waits on the mainloop when the time is up. Made and dropped under its lock.
class PulseEndpoints::Deadline {
 public:
  Deadline(const PulseEndpoints& owner, pa_usec_t in_us) : mainloop_(owner.mainloop_) {
    event_ = pa_context_rttime_new(
        owner.context_, pa_rtclock_now() + in_us,
        [](pa_mainloop_api*, pa_time_event*, const timeval*, void* user) {
          auto* self = static_cast<Deadline*>(user);
          self->passed_ = true;
          pa_threaded_mainloop_signal(self->mainloop_, 0);
        },
        this);
  }
  ~Deadline() {
    pa_mainloop_api* api = pa_threaded_mainloop_get_api(mainloop_);
    if (event_ != nullptr) api->time_free(event_);
  }
  Deadline(const Deadline&) = delete;
  Deadline& operator=(const Deadline&) = delete;

  bool passed() const { return passed_ || event_ == nullptr; }

 private:
  pa_threaded_mainloop* mainloop_;
  pa_time_event* event_ = nullptr;
  bool passed_ = false;
};

// What a question about a sink gave, filled in on the mainloop's thread.
struct PulseEndpoints::Answer {
  PulseEndpoints* self = nullptr;
  bool found = false;
  bool muted = false;
  bool audible_monitor = false;  // if it were muted
};

// ---- The connection

bool PulseEndpoints::open(Listener* listener, std::string* error) {
  close();
  listener_ = listener;
  mainloop_ = pa_threaded_mainloop_new();
  bool opened = mainloop_ != nullptr && pa_threaded_mainloop_start(mainloop_) == 0;
  if (opened) {
    const Lock lock(mainloop_);
    opened = connect();
    if (opened) {
      const Deadline deadline(*this, CALL_US);
      while (!ready() && PA_CONTEXT_IS_GOOD(pa_context_get_state(context_)) && !deadline.passed())
        pa_threaded_mainloop_wait(mainloop_);
      opened = ready();
    }
  }
  if (opened) return true;
  close();
  *error = "cannot reach the sound server";
  return false;
}

void PulseEndpoints::close() {
  if (mainloop_ == nullptr) return;
  {
    const Lock lock(mainloop_);
    if (retry_ != nullptr) pa_threaded_mainloop_get_api(mainloop_)->time_free(retry_);
    retry_ = nullptr;
    if (context_ != nullptr) {
      pa_context_set_state_callback(context_, nullptr, nullptr);
      pa_context_disconnect(context_);  // no other callback comes after it
      pa_context_unref(context_);
      context_ = nullptr;
    }
  }
  pa_threaded_mainloop_stop(mainloop_);
  pa_threaded_mainloop_free(mainloop_);
  mainloop_ = nullptr;
  listener_ = nullptr;
  server_name_.clear();
  default_.clear();
  sinks_.clear();
}

// Replaces a connection that was lost.
bool PulseEndpoints::connect() {
  if (context_ != nullptr) pa_context_unref(context_);
  context_ = pa_context_new(pa_threaded_mainloop_get_api(mainloop_), "Lunderhaze");
  if (context_ == nullptr) return false;
  pa_context_set_state_callback(
      context_,
      [](pa_context* context, void* user) {
        auto* self = static_cast<PulseEndpoints*>(user);
        const pa_context_state_t state = pa_context_get_state(context);
        if (state == PA_CONTEXT_READY) self->connected();
        if (!PA_CONTEXT_IS_GOOD(state)) self->lost();
        pa_threaded_mainloop_signal(self->mainloop_, 0);
      },
      this);
  pa_context_connect(context_, nullptr, PA_CONTEXT_NOAUTOSPAWN, nullptr);
  return true;
}

bool PulseEndpoints::ready() const {
  return context_ != nullptr && pa_context_get_state(context_) == PA_CONTEXT_READY;
}

void PulseEndpoints::connected() {
  pa_context_set_subscribe_callback(
      context_,
      [](pa_context* context, pa_subscription_event_type_t event, std::uint32_t index, void* user) {
        const auto facility = event & PA_SUBSCRIPTION_EVENT_FACILITY_MASK;
        const auto type = event & PA_SUBSCRIPTION_EVENT_TYPE_MASK;
        if (facility == PA_SUBSCRIPTION_EVENT_SERVER)
          drop(pa_context_get_server_info(context, take_server, user));
        else if (type != PA_SUBSCRIPTION_EVENT_REMOVE)
          drop(pa_context_get_sink_info_by_index(context, index, take_sink, user));
      },
      this);
  constexpr auto EVENTS =
      static_cast<pa_subscription_mask_t>(PA_SUBSCRIPTION_MASK_SINK | PA_SUBSCRIPTION_MASK_SERVER);
  drop(pa_context_subscribe(context_, EVENTS, nullptr, nullptr));
  // Answers come in the order of the questions: the server's name is known before its sinks are.
  drop(pa_context_get_server_info(context_, take_server, this));
  for (const auto& [id, sink] : sinks_)
    drop(pa_context_get_sink_info_by_name(context_, id.c_str(), take_sink, this));
}

void PulseEndpoints::lost() {
  default_.clear();
  for (auto& [id, sink] : sinks_) {
    sink.mute_again = sink.ours;
    sink.seen.reset();
    sink.awaited.reset();
  }
  if (retry_ != nullptr) return;
  retry_ = pa_context_rttime_new(
      context_, pa_rtclock_now() + RETRY_US,
      [](pa_mainloop_api* api, pa_time_event* event, const timeval*, void* user) {
        auto* self = static_cast<PulseEndpoints*>(user);
        api->time_free(event);
        self->retry_ = nullptr;
        self->connect();
      },
      this);
}

// ---- What the server tells

void PulseEndpoints::take_server(pa_context*, const pa_server_info* info, void* self) {
  if (info != nullptr) static_cast<PulseEndpoints*>(self)->observe(*info);
}

void PulseEndpoints::take_sink(pa_context*, const pa_sink_info* info, int end, void* self) {
  if (end == 0) static_cast<PulseEndpoints*>(self)->observe(*info);
}

void PulseEndpoints::observe(const pa_server_info& info) {
  server_name_ = text_of(info.server_name);
  const std::string name = default_sink_of(info);
  if (name == default_) return;
  default_ = name;
  listener_->default_changed();
}

void PulseEndpoints::observe(const pa_sink_info& info) {
  const auto found = sinks_.find(text_of(info.name));
  if (found == sinks_.end()) return;
  auto& [id, sink] = *found;
  const bool muted = info.mute != 0;
  // On PipeWire a change may take effect some time after the server has said yes: until then, what
  // is seen is the state before it, and nobody's change.
  if (sink.awaited && *sink.awaited != muted) return pa_threaded_mainloop_signal(mainloop_, 0);
  const bool expected = sink.awaited || !sink.seen || *sink.seen == muted;
  sink.awaited.reset();
  sink.seen = muted;
  if (!muted && !expected) sink.ours = false;
  if (std::exchange(sink.unmute_then, false) && muted) send_unwatched(id, false);
  if (std::exchange(sink.mute_again, false) && !muted && has_audible_monitor(info))
    send_unwatched(id, true);
  if (!expected) listener_->mute_changed(id, muted);
  pa_threaded_mainloop_signal(mainloop_, 0);
}

bool PulseEndpoints::has_audible_monitor(const pa_sink_info& info) const {
  return rule_(server_name_, text_of(pa_proplist_gets(info.proplist, MONITOR_PROPERTY)));
}

// ---- The owner's questions and wishes

// True when it was answered in time.
bool PulseEndpoints::await(pa_operation* operation, const Deadline& deadline) const {
  if (operation == nullptr) return false;
  while (pa_operation_get_state(operation) == PA_OPERATION_RUNNING && !deadline.passed())
    pa_threaded_mainloop_wait(mainloop_);
  const bool done = pa_operation_get_state(operation) == PA_OPERATION_DONE;
  pa_operation_cancel(operation);  // an answer that comes later has nowhere to go
  pa_operation_unref(operation);
  return done;
}

bool PulseEndpoints::look(const std::string& id, Answer* answer, const Deadline& deadline) {
  if (!ready()) return false;
  *answer = {this};
  const auto take = [](pa_context*, const pa_sink_info* info, int end, void* user) {
    auto* into = static_cast<Answer*>(user);
    if (end != 0) return pa_threaded_mainloop_signal(into->self->mainloop_, 0);
    into->found = true;
    into->muted = info->mute != 0;
    into->audible_monitor = into->self->has_audible_monitor(*info);
    into->self->observe(*info);
  };
  return await(pa_context_get_sink_info_by_name(context_, id.c_str(), take, answer), deadline) &&
         answer->found;
}

bool PulseEndpoints::send(const std::string& id, bool muted, const Deadline& deadline) {
  struct Result {
    pa_threaded_mainloop* mainloop;
    bool success;
  } result{mainloop_, false};
  const auto take = [](pa_context*, int success, void* user) {
    auto* into = static_cast<Result*>(user);
    into->success = success != 0;
    pa_threaded_mainloop_signal(into->mainloop, 0);
  };
  sinks_[id].awaited = muted;
  return await(pa_context_set_sink_mute_by_name(context_, id.c_str(), muted, take, &result),
               deadline) &&
         result.success;
}

void PulseEndpoints::send_unwatched(const std::string& id, bool muted) {
  sinks_[id].awaited = muted;
  drop(pa_context_set_sink_mute_by_name(context_, id.c_str(), muted, nullptr, nullptr));
}

// Until what is awaited has been seen. The change is told by an event; by the time that this thread
// has the lock again more may have been seen than its own look's answer.
bool PulseEndpoints::confirm(const std::string& id, const Deadline& deadline) {
  const Sink& sink = sinks_[id];
  Answer answer;
  while (look(id, &answer, deadline)) {
    if (!sink.awaited) return true;
    if (deadline.passed()) return false;
    pa_threaded_mainloop_wait(mainloop_);
  }
  return false;
}

void PulseEndpoints::owe_unmute(Sink* sink) {
  sink->unmute_then = std::exchange(sink->ours, false);
  sink->mute_again = false;
  sink->awaited.reset();
}

std::string PulseEndpoints::default_output() {
  if (mainloop_ == nullptr) return {};
  const Lock lock(mainloop_);
  if (!ready()) return {};
  const Deadline deadline(*this, CALL_US);
  const auto take = [](pa_context* context, const pa_server_info* info, void* user) {
    take_server(context, info, user);
    pa_threaded_mainloop_signal(static_cast<PulseEndpoints*>(user)->mainloop_, 0);
  };
  const bool answered = await(pa_context_get_server_info(context_, take, this), deadline);
  return answered ? default_ : std::string();
}

int PulseEndpoints::is_muted(const std::string& id) {
  if (mainloop_ == nullptr) return -1;
  const Lock lock(mainloop_);
  Sink& sink = sinks_[id];
  if (ready()) {
    const Deadline deadline(*this, CALL_US);
    Answer answer;
    if (look(id, &answer, deadline)) {
      if (sink.awaited) confirm(id, deadline);
      return sink.seen.value_or(answer.muted) ? 1 : 0;
    }
  }
  owe_unmute(&sink);
  return -1;
}

bool PulseEndpoints::can_mute(const std::string& id) {
  if (mainloop_ == nullptr) return false;
  const Lock lock(mainloop_);
  if (!ready()) return false;
  const Deadline deadline(*this, CALL_US);
  Answer answer;
  return look(id, &answer, deadline) && answer.audible_monitor;
}

bool PulseEndpoints::set_mute(const std::string& id, bool muted) {
  if (mainloop_ == nullptr) return false;
  const Lock lock(mainloop_);
  Sink& sink = sinks_[id];
  if (!ready()) {
    owe_unmute(&sink);
    return false;
  }
  const Deadline deadline(*this, CALL_US);
  Answer answer;
  if (muted && !(look(id, &answer, deadline) && answer.audible_monitor)) return false;
  sink.mute_again = sink.unmute_then = false;
  if (send(id, muted, deadline) && confirm(id, deadline)) {
    sink.ours = muted;
    return true;
  }
  // Whatever became of it, it isn't to stay muted without its owner's knowledge.
  sink.ours = true;
  owe_unmute(&sink);
  if (ready()) drop(pa_context_get_sink_info_by_name(context_, id.c_str(), take_sink, this));
  return false;
}

std::unique_ptr<SoundEndpoints> make_sound_endpoints() {
  return std::make_unique<PulseEndpoints>();
}
