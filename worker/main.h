// lunderhaze-worker, started by the service alone: what each platform's entry runs.
#pragma once

#include <string>
#include <vector>

// `arguments` in UTF-8, without the program's name. The exit status.
int worker_main(const std::vector<std::string>& arguments);
