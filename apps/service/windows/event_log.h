// The service's lines in the Application log of the Event Viewer, under its own name.
#pragma once

#include <string>

#include "control/windows/handles.h"

// Where the log finds the words for the service's events; with administrator's rights. An error of
// the system's, or ERROR_SUCCESS.
LSTATUS register_event_source();
LSTATUS unregister_event_source();  // ERROR_SUCCESS as well when there is none

enum class EventKind { News, Failure };
void write_event(const std::string& line, EventKind kind);  // any thread
