// Input by SendInput, to the desktop that the calling thread is on; a desktop's handle is the
// system's. Any thread, under the injector's lock; owns nothing but the handles that it gives out.
#pragma once

#include <memory>
#include <string>

#include "streams/input_sink.h"

class SendInputSink final : public InputSink {
 public:
  Words words() const override {
    return {"SendInput", "secure desktop or an elevated window has focus"};
  }

  Desktop open_input_desktop() override;
  bool desktop_name(Desktop desktop, std::string* name) override;
  bool attach_this_thread(Desktop desktop) override;
  void close_desktop(Desktop desktop) override;

  SendResult move_to(DesktopPoint pixel) override;
  SendResult move_by(std::int32_t dx, std::int32_t dy) override;
  SendResult button(int button, bool down) override;
  SendResult wheel(WheelAxis axis, std::int32_t delta) override;
  SendResult key(const InputKey& key, bool down) override;
};

std::unique_ptr<InputSink> make_send_input_sink();
