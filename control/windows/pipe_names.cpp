#include "control/ipc_transport.h"

namespace host_service {

const char* const WORKER_PIPE_PREFIX = "\\\\.\\pipe\\LunderhazeHostWorker-v1-";
const char* const EVENTS_SUFFIX = "-events";
const char* const SERVICE_PIPE = "\\\\.\\pipe\\LunderhazeService-v1";

}  // namespace host_service
