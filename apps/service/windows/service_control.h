// What the service control manager (SCM) and this process tell each other: the one status that it
// has, and the controls that it gets. In a process that the SCM didn't start, nobody is told
// anything.
//
// The SCM's controls come on the thread that runs the dispatcher, the rest on the service's own;
// any thread may call anything. A mutex guards the status and is held while it is reported, so that
// the SCM sees the states in their order.
#pragma once

#include <atomic>
#include <functional>
#include <mutex>

#include "control/wake_event.h"
#include "control/windows/handles.h"

struct ControlCalls {
  std::function<SERVICE_STATUS_HANDLE(const wchar_t* name, LPHANDLER_FUNCTION_EX, void* context)>
      register_handler = RegisterServiceCtrlHandlerExW;
  std::function<BOOL(SERVICE_STATUS_HANDLE, SERVICE_STATUS*)> set_status = SetServiceStatus;
};

class ServiceControl {
 public:
  // Within which the SCM is told of something new, or takes the service for hung. Of an end: the
  // time that a worker gets, and some for what is killed then.
  static constexpr DWORD START_HINT_MS = 30'000;
  static constexpr DWORD STOP_HINT_MS = 20'000;

  explicit ServiceControl(ControlCalls calls = {}) : calls_(std::move(calls)) {}

  // The SCM started this process, and its service is starting. False when it can't be told.
  bool begin();
  bool managed() const { return managed_; }
  void ready();
  void stopping();
  void progress();  // while it starts or stops
  // 0: in order. Other numbers are the service's own.
  void ended(DWORD exit_code);

  // Set from now on when the end is asked for, or another session may be the active one. For the
  // process's life.
  void wake(WakeEvent& event) { wake_ = &event; }
  void ask_to_stop();
  bool stop_asked() const { return stop_asked_; }

  // One of SERVICE_CONTROL_*; what a handler returns to the SCM.
  DWORD handle(DWORD control);

 private:
  void report(DWORD state, DWORD hint_ms);
  void set_wake();

  const ControlCalls calls_;
  std::atomic<WakeEvent*> wake_{nullptr};
  std::atomic<bool> stop_asked_{false};
  std::atomic<bool> managed_{false};
  std::mutex mutex_;
  SERVICE_STATUS_HANDLE handle_ = nullptr;
  SERVICE_STATUS status_{};
};

ServiceControl& service_control();  // this process's
