#pragma once

#define LUND_PRINTF_RULES printf
