// What the trust tests take from the platform beside their own calls. control/<platform>/ defines
// it. Any thread; results only.
#pragma once

#include <cstdint>
#include <filesystem>

namespace host_service::security_platform {

extern const std::intptr_t NO_PROCESS;  // stands for no handle
void close_process(std::intptr_t handle);

// One directory that the system alone may enter, in a directory that is there. True when there is
// something by that name afterwards, whosever it is.
bool make_private_directory(const std::filesystem::path& path);

}  // namespace host_service::security_platform
