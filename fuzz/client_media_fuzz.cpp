// What a host sends a client beside the picture: pointer images, pointer positions and sound. The
// input is a list of steps: a kind, and a block of bytes behind a header of that kind. Images that
// are whole and right are among the kinds, so that what keeps them is reached.
#include <algorithm>
#include <cstdint>

#include "apps/client/cursor_cache.h"
#include "apps/client/sound_receiver.h"
#include "connection/byte_order.h"
#include "connection/protocol.h"
#include "fuzz/input.h"
#include "fuzz/require.h"

namespace {

constexpr std::size_t STEPS_MAX = 200;  // for the sake of time
constexpr std::size_t IMAGE_BYTES_MAX =
    std::size_t{CursorCache::SIDE_MAX} * CursorCache::SIDE_MAX * 4;
constexpr std::size_t OPUS_FRAMES_MAX = 5'760;  // 120 ms, RFC 6716

Input::Bytes packet_of(std::uint8_t type, std::uint8_t flags, const Input::Bytes& body) {
  Input::Bytes packet(LUND_HEADER_SIZE);
  const lund_packet_header header{type, flags, 1};
  lund_encode_header(packet.data(), packet.size(), &header);
  packet.insert(packet.end(), body.begin(), body.end());
  return packet;
}

struct Client {
  CursorCache cursor;
  SoundReceiver sound{[](const SoundBlock& block) {
    require(block.frames >= 1 && block.frames <= OPUS_FRAMES_MAX, "a block is of Opus's lengths");
    float sum = 0;
    for (std::size_t i = 0; i < block.frames * SOUND_CHANNELS; ++i) sum += block.samples[i];
    require(block.samples != nullptr || sum == 0, "a block has its samples");
  }};
  std::uint64_t now_us = 1'000'000;

  void take_shape(const Input::Bytes& packet) {
    const PointerImage* image = cursor.take_shape(packet.data(), packet.size(), now_us);
    require(cursor.bytes() <= CursorCache::BYTES_MAX + IMAGE_BYTES_MAX, "memory is bounded");
    if (!image) return;
    require(cursor_hash(image->bitmap) == image->id, "an image is its id's");
    require(cursor.find(image->id) != nullptr, "an image that is new is known");
    require(image->bitmap.hot_x < image->bitmap.width && image->bitmap.hot_y < image->bitmap.height,
            "the hot spot is inside");
  }

  // An image of few sizes and shades, in chunks from the last to the first.
  void take_image(Input& input) {
    CursorBitmap bitmap;
    bitmap.width = 1 + input.byte() % 16;
    bitmap.height = 1 + input.byte() % 16;
    bitmap.pixels.assign(static_cast<std::size_t>(bitmap.width * bitmap.height) * 4, input.byte());
    const std::size_t chunk = 64U + input.byte();
    lund_cursor_shape shape;
    shape.shape_id = cursor_hash(bitmap);
    shape.width = static_cast<std::uint16_t>(bitmap.width);
    shape.height = static_cast<std::uint16_t>(bitmap.height);
    shape.total_size = static_cast<std::uint32_t>(bitmap.pixels.size());
    for (std::size_t end = bitmap.pixels.size(); end > 0;) {
      const std::size_t size = std::min(chunk, end);
      end -= size;
      shape.offset = static_cast<std::uint32_t>(end);
      const lund_packet_header header;
      Input::Bytes packet(28 + size);
      lund_encode_cursor_shape(packet.data(), packet.size(), &header, &shape,
                               bitmap.pixels.data() + end, size);
      take_shape(packet);
    }
    require(cursor.find(shape.shape_id) != nullptr, "a whole image is known");
  }

  void take_sound(Input& input) {
    const std::uint32_t seq = input.byte();  // few, so that they meet
    Input::Bytes body(12);
    store_le(body.data(), seq);
    store_le(body.data() + 4, now_us);
    const Input::Bytes opus = input.block();
    body.insert(body.end(), opus.begin(), opus.end());
    const Input::Bytes packet = packet_of(LUND_PKT_AUDIO, 0, body);
    sound.take(packet.data(), packet.size(), 0);
  }

  void take_position(Input& input) {
    const std::uint32_t keys = input.byte() % 3;
    const std::uint64_t number = input.byte();
    const Input::Bytes packet =
        packet_of(LUND_PKT_CURSOR_POS, input.byte(), input.bytes(input.byte() % 16));
    cursor.take_position(packet.data(), packet.size(), {keys, number}, now_us);
  }

  void step(Input& input) {
    switch (input.byte() % 7) {
      case 0:
        return take_shape(packet_of(LUND_PKT_CURSOR_SHAPE, 0, input.block()));
      case 1:
        return take_image(input);
      case 2:
        return take_position(input);
      case 3:
        return take_sound(input);
      case 4: {
        const Input::Bytes raw = input.block();
        cursor.take_shape(raw.data(), raw.size(), now_us);
        cursor.take_position(raw.data(), raw.size(), {1, now_us}, now_us);
        return sound.take(raw.data(), raw.size(), 0);
      }
      case 5: {
        now_us += input.u16() * 100U;
        const std::uint32_t wanted = cursor.request_due(now_us, input.u16());
        require(wanted == 0 || !cursor.find(wanted), "only what isn't known is asked for");
        return;
      }
      default:
        sound.begin();
        return cursor.forget_position();
    }
  }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Input input(data, size);
  Client client;
  client.sound.begin();
  for (std::size_t i = 0; i < STEPS_MAX && !input.done(); ++i) client.step(input);
  return 0;
}
