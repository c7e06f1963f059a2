// The service control manager, as a test needs it: LocalSystem, as it is on Windows, so that the
// services that it starts are as well. One thread.
#pragma once

// Wine's manager runs as Wine's user. Where LocalSystem's token can be had another takes its place,
// for all programs from then on. False where it stays the user's.
bool manager_is_the_systems();
