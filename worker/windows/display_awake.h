// Keeps the displays and the machine from falling asleep by themselves. The request is the asking
// thread's and ends with it: main thread.
#pragma once

// False when it can't be had.
bool set_display_awake(bool on);
