// How addresses and keys are shown to a person and in the log. Pure.
#pragma once

#include <cstdint>
#include <string>

#include "connection/netsock.h"
#include "connection/secure.h"

std::string addr_string(const lund_rv_endpoint& endpoint);   // as lund_addr_format has it
std::string code_of(const std::uint8_t key[LUND_KEY_SIZE]);  // the key code, "7K2M-Q9TX"
// Whether a person who wrote `text` meant this key by its code.
bool is_code_of(const std::string& text, const std::uint8_t key[LUND_KEY_SIZE]);
