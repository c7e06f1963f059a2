// How addresses and keys are shown to a person and in the log, and how names and values are read
// that a person or another program wrote. Pure.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>

#include "connection/netsock.h"
#include "connection/secure.h"

std::string addr_string(const lund_rv_endpoint& endpoint);   // as lund_addr_format has it
std::string code_of(const std::uint8_t key[LUND_KEY_SIZE]);  // the key code, "7K2M-Q9TX"
// Whether a person who wrote `text` meant this key by its code.
bool is_code_of(const std::string& text, const std::uint8_t key[LUND_KEY_SIZE]);

std::string_view trimmed(std::string_view text);  // without blanks, tabs, CR and LF at its ends
bool same_but_for_case(std::string_view a, std::string_view b);  // of A to Z; no other folding
const char* plural(int count);                                   // "", or "s" unless it is one
// The path of a name in UTF-8, as the programs are given it. A path that is made of a string's
// bytes has on Windows a character for each of them.
std::filesystem::path utf8_path(std::string_view name);
