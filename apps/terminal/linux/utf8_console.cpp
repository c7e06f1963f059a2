#include "apps/terminal/utf8_console.h"

Utf8Console::Utf8Console() : former_(0) {}
Utf8Console::~Utf8Console() = default;
