// Expected values were computed with big integers.
#include "connection/cpace_field.h"

#include <gtest/gtest.h>

#include "tests/support/vectors.h"

namespace {

using vectors::from_hex;
using vectors::to_hex;

struct row {
  const char* value;
  const char* expected;
};

TEST(CpaceField, ReducingLeavesTheRemainderModuloThePrime) {
  constexpr row ROWS[] = {
      {"0000000000000000000000000000000000000000000000000000000000000000",
       "0000000000000000000000000000000000000000000000000000000000000000"},
      {"0100000000000000000000000000000000000000000000000000000000000000",
       "0100000000000000000000000000000000000000000000000000000000000000"},
      {"1200000000000000000000000000000000000000000000000000000000000000",
       "1200000000000000000000000000000000000000000000000000000000000000"},
      {"1300000000000000000000000000000000000000000000000000000000000000",
       "1300000000000000000000000000000000000000000000000000000000000000"},
      {"d9ffffffffffffffffffffffffffffffffffffffffffffffffffffffffffff7f",
       "d9ffffffffffffffffffffffffffffffffffffffffffffffffffffffffffff7f"},
      {"daffffffffffffffffffffffffffffffffffffffffffffffffffffffffffff7f",
       "daffffffffffffffffffffffffffffffffffffffffffffffffffffffffffff7f"},
      {"ecffffffffffffffffffffffffffffffffffffffffffffffffffffffffffff7f",
       "ecffffffffffffffffffffffffffffffffffffffffffffffffffffffffffff7f"},
      {"edffffffffffffffffffffffffffffffffffffffffffffffffffffffffffff7f",
       "0000000000000000000000000000000000000000000000000000000000000000"},
      {"eeffffffffffffffffffffffffffffffffffffffffffffffffffffffffffff7f",
       "0100000000000000000000000000000000000000000000000000000000000000"},
      {"ffffffffffffffffffffffffffffffffffffffffffffffffffffffffffffff7f",
       "1200000000000000000000000000000000000000000000000000000000000000"},
      {"0000000000000000000000000000000000000000000000000000000000000040",
       "0000000000000000000000000000000000000000000000000000000000000040"},
      {"ffffffffffffffffffffffffffffffffffffffffffffffffffffffffffffff3f",
       "ffffffffffffffffffffffffffffffffffffffffffffffffffffffffffffff3f"},
  };
  for (const auto& [value, expected] : ROWS) {
    auto number = from_hex(value);
    conn_field_reduce(number.data());
    EXPECT_EQ(to_hex(number), expected) << value;
  }
}

TEST(CpaceField, FoldingNegatesJustTheNumbersWithBit254) {
  constexpr row ROWS[] = {
      {"0000000000000000000000000000000000000000000000000000000000000000",
       "0000000000000000000000000000000000000000000000000000000000000000"},
      {"0100000000000000000000000000000000000000000000000000000000000000",
       "0100000000000000000000000000000000000000000000000000000000000000"},
      {"ffffffffffffffffffffffffffffffffffffffffffffffffffffffffffffff3f",
       "ffffffffffffffffffffffffffffffffffffffffffffffffffffffffffffff3f"},
      {"0000000000000000000000000000000000000000000000000000000000000040",
       "edffffffffffffffffffffffffffffffffffffffffffffffffffffffffffff3f"},
      {"0100000000000000000000000000000000000000000000000000000000000040",
       "ecffffffffffffffffffffffffffffffffffffffffffffffffffffffffffff3f"},
      {"ecffffffffffffffffffffffffffffffffffffffffffffffffffffffffffff7f",
       "0100000000000000000000000000000000000000000000000000000000000000"},
      {"ebffffffffffffffffffffffffffffffffffffffffffffffffffffffffffff7f",
       "0200000000000000000000000000000000000000000000000000000000000000"},
      {"eefeffffffffffffffffffffffffffffffffffffffffffffffffffffffffff7f",
       "ff00000000000000000000000000000000000000000000000000000000000000"},
      {"edfeffffffffffffffffffffffffffffffffffffffffffffffffffffffffff7f",
       "0001000000000000000000000000000000000000000000000000000000000000"},
      {"f6ffffffffffffffffffffffffffffffffffffffffffffffffffffffffffff3f",
       "f6ffffffffffffffffffffffffffffffffffffffffffffffffffffffffffff3f"},
      {"f7ffffffffffffffffffffffffffffffffffffffffffffffffffffffffffff3f",
       "f7ffffffffffffffffffffffffffffffffffffffffffffffffffffffffffff3f"},
      {"edfffffffffffffffffffffffffffffffbffffffffffffffffffffffffffff5f",
       "0000000000000000000000000000000004000000000000000000000000000020"},
  };
  for (const auto& [value, expected] : ROWS) {
    auto number = from_hex(value);
    conn_field_fold(number.data());
    EXPECT_EQ(to_hex(number), expected) << value;
  }
}

}  // namespace
