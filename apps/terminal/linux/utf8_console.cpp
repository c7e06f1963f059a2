#include "apps/terminal/utf8_console.h"

Utf8Console::Utf8Console() = default;
Utf8Console::~Utf8Console() = default;
