// Another thread's event wakes SDL's thread by a message to one of its windows, and that may come
// when the window is gone.
#pragma once

// Has such a message do nothing. Once in a program, before SDL's video starts.
void allow_late_wakeups();
