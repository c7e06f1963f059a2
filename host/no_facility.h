// Stand-ins for facilities that a computer doesn't have: they take everything and do nothing.
// NoVirtualDisplays is the leases' own.
#pragma once

#include "capture/no_vdd_driver.h"
#include "streams/host_clipboard.h"
#include "streams/input_sink.h"

class NoInput final : public InputSink {
 public:
  Words words() const override { return {"input", "this computer plays none"}; }
  Desktop open_input_desktop() override { return NO_DESKTOP; }
  bool desktop_name(Desktop, std::string*) override { return false; }
  bool attach_this_thread(Desktop) override { return false; }
  void close_desktop(Desktop) override {}
  SendResult move_to(DesktopPoint) override { return {}; }
  SendResult move_by(std::int32_t, std::int32_t) override { return {}; }
  SendResult button(int, bool) override { return {}; }
  SendResult wheel(WheelAxis, std::int32_t) override { return {}; }
  SendResult key(const InputKey&, bool) override { return {}; }
};

class NoClipboard final : public HostClipboard {
 public:
  void session_start(std::uint32_t, int, Send) override {}
  void session_end(std::uint32_t) override {}
  void resize(std::uint32_t, int) override {}
  void receive(const std::uint8_t*, std::uint64_t) override {}
  void set_enabled(bool) override {}
  bool enabled() override { return false; }
};
