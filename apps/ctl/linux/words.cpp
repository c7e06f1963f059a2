#include "apps/ctl/words.h"

namespace ctl {

const char* const AS_ADMINISTRATOR = "run it as root, with sudo";
const char* const START_SERVICE =
    "start it with \"systemctl start lunderhaze\", or look why it ended with \"journalctl -u "
    "lunderhaze\"";
const char* const WORKER_LOG = "\"journalctl -u lunderhaze\"";

}  // namespace ctl
