// Stand-ins for facilities that a computer doesn't have: they take everything and do nothing.
#pragma once

#include "capture/vdd.h"
#include "streams/host_clipboard.h"
#include "streams/input.h"

class NoInput final : public InputInjector {
 public:
  void set_mac_keys(bool) override {}
  void mouse_rel(const InputTarget&, int, int) override {}
  void mouse_abs(const InputTarget&, std::uint16_t, std::uint16_t) override {}
  void mouse_button(int, bool) override {}
  void mouse_wheel(int, int) override {}
  void key(std::uint16_t, bool) override {}
  void release_all() override {}
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

class NoVirtualDisplays final : public VirtualDisplays {
 public:
  std::string probe() override { return "not installed"; }
  bool usable() override { return false; }
  bool acquire(int, int, int, int, const DesktopPoint*, DisplayInfo*, std::string*) override {
    return false;
  }
  void release(int) override {}
  void tick() override {}
  void restore_now() override {}
  std::string status_line() override {
    return enabled == 0 ? "Virtual display: off (--virtual-display off)"
                        : "Virtual display: driver not installed";
  }
};
