#include "control/options.h"

#include "control/options_usage.h"

const char* const HOST_USAGE = LUND_HOST_USAGE("Lunderhaze.exe", "\\\\.\\DISPLAYn");
