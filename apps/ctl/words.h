// What the program tells a person to do where platforms differ; apps/ctl/<platform>/ defines it.
#pragma once

namespace ctl {

// How to become one, at the end of a sentence.
extern const char* const AS_ADMINISTRATOR;
// What to do when the service doesn't answer, and where the worker's end is looked up.
extern const char* const START_SERVICE;
extern const char* const WORKER_LOG;

}  // namespace ctl
