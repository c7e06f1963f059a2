// Arithmetic modulo p = 2^255 - 19 that brings a hash into the form that crypto_elligator_map
// reads. Little-endian numbers of 32 bytes. Constant time: the numbers come from a secret.
#pragma once

#include <cstdint>

// Takes a number below 2^255, leaves it below p.
void conn_field_reduce(std::uint8_t value[32]);

// Takes a number below p, leaves it or its negative, whichever is below 2^254. The map takes r and
// -r to one point and Monocypher's reads 254 bits, so that no bit of the field element is lost.
void conn_field_fold(std::uint8_t value[32]);
