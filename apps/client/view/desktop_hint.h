// What a person may look for when no window can be opened.
#pragma once

extern const char* const DESKTOP_HINT;
