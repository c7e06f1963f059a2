// What the program returns; scripts rely on these.
#pragma once

enum ExitStatus : int {
  EXIT_OK = 0,
  EXIT_USAGE = 1,
  EXIT_NO_DISPLAY = 2,
  EXIT_STORE = 3,
  EXIT_START = 4,
  EXIT_NOT_RUNNING = 5,  // asked of a running host, and none runs
  EXIT_UNREACHABLE = 6,  // a relay server
  EXIT_REFUSED = 7,      // the running host refused, or could not be asked
  EXIT_SYSTEM = 8,       // this computer refused: its autostart or its firewall
  EXIT_PROBLEM = 9,      // the doctor has found one
};
