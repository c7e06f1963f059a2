// What is done about the events of a console (Ctrl+C, Ctrl+Break, its closing) once requests are
// watched: the handler that the system calls, on threads of its own.
#pragma once

#include <windows.h>

BOOL WINAPI answer_control_event(DWORD kind);
