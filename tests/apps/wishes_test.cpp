// From the command line's wishes to the HELLO.
#include <gtest/gtest.h>

#include "apps/client/host_access.h"

namespace {

// What a host would read.
lund_hello sent(const client_app::Arguments& args) {
  const lund_hello hello = client_app::make_hello(args);
  const lund_packet_header header;
  std::uint8_t packet[64];
  const std::size_t size = lund_encode_hello(packet, sizeof packet, &header, &hello);
  lund_hello read;
  EXPECT_EQ(lund_decode_hello(packet, size, &read), 0);
  return read;
}

TEST(Wishes, AVirtualDisplayIsAskedForWithItsMode) {
  client_app::Arguments args;
  args.virtual_display = true;
  args.width = 2560;
  args.height = 1600;
  args.fps = 120;
  const lund_hello hello = sent(args);
  EXPECT_EQ(hello.display_mode, 1);
  EXPECT_EQ(hello.width, 2560);
  EXPECT_EQ(hello.height, 1600);
  EXPECT_EQ(hello.fps, 120);
}

TEST(Wishes, WithoutAWishTheHostDecides) {
  const lund_hello hello = sent({});
  EXPECT_EQ(hello.display_mode, 0);
  EXPECT_EQ(hello.width, 0);
  EXPECT_EQ(hello.height, 0);
  EXPECT_EQ(hello.fps, 0);
  EXPECT_EQ(hello.codec, 0);
}

}  // namespace
