#include <chrono>
#include <thread>

#include "capture/encoder_internal.h"

void encoder_internal::give_up_processor() {
  std::this_thread::yield();
}

void encoder_internal::sleep_one_ms() {
  std::this_thread::sleep_for(std::chrono::milliseconds(1));
}
