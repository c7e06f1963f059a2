#include "apps/ctl/words.h"

namespace ctl {

const char* const AS_ADMINISTRATOR = "run it in a terminal that was started as administrator";
const char* const START_SERVICE =
    "start it with \"net start Lunderhaze\", or look why it ended in the Event Viewer, under "
    "Windows Logs, Application";
const char* const WORKER_LOG = "the Event Viewer";

}  // namespace ctl
