// A network with nobody else in it, so that fixed ports are free.
#pragma once

// Where the platform can, this process has one from the first call on. True as well where it has
// the machine's for itself, as a Windows that is made for its tests.
bool have_own_network();
