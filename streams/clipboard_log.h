// Where the clipboard's lines go: the host's log, or a client's. Any thread.
#pragma once

#include <functional>
#include <string>

using ClipboardLog = std::function<void(const std::string& line)>;
