// What a program that runs until it is ended is asked by whoever runs it: to end in order, and to
// tell how it does. On Linux by signals, SIGINT and SIGTERM, and SIGUSR1; on Windows by the
// console, Ctrl+C and the window's closing, and Ctrl+Break.
#pragma once

struct Requests {
  void (*end)() = nullptr;
  void (*report)() = nullptr;  // may be null: the request does then what it always does
};

// For the rest of the process' life. Both functions run in a signal handler or on a thread of the
// system's, at any time.
void watch_requests(const Requests& requests);

extern const char* const REPORT_REQUEST;  // as a person knows it: "SIGUSR1"
