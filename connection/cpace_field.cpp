#include "connection/cpace_field.h"

#include "connection/secure.h"

namespace {

// `mask` 0xFF takes `replacement`, 0 keeps.
void select(std::uint8_t value[32], const std::uint8_t replacement[32], std::uint8_t mask) {
  for (int i = 0; i < 32; ++i)
    value[i] = static_cast<std::uint8_t>(value[i] ^ (mask & (value[i] ^ replacement[i])));
}

std::uint8_t mask_of_bit(const std::uint8_t value[32], int bit) {
  return static_cast<std::uint8_t>(-(value[bit / 8] >> (bit % 8) & 1));
}

}  // namespace

// Adding 19 carries into bit 255 just when the value is p or more, and then leaves value - p below
// it.
void conn_field_reduce(std::uint8_t value[32]) {
  std::uint8_t plus19[32];
  unsigned carry = 19;
  for (int i = 0; i < 32; ++i) {
    carry += value[i];
    plus19[i] = static_cast<std::uint8_t>(carry);
    carry >>= 8;
  }
  const std::uint8_t mask = mask_of_bit(plus19, 255);
  plus19[31] &= 0x7F;
  select(value, plus19, mask);
  lund_secure_wipe(plus19, sizeof plus19);
}

void conn_field_fold(std::uint8_t value[32]) {
  std::uint8_t negated[32];
  int difference = 0;  // with its borrow, -1 or 0, from the byte below
  for (int i = 0; i < 32; ++i) {
    const int p = i == 0 ? 0xED : i == 31 ? 0x7F : 0xFF;
    difference += p - value[i];
    negated[i] = static_cast<std::uint8_t>(difference);
    difference >>= 8;
  }
  select(value, negated, mask_of_bit(value, 254));
  lund_secure_wipe(negated, sizeof negated);
}
