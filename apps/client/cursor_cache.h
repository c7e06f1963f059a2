// The pointer of one screen, which the client draws: where it is, and its images by id. Puts images
// together from CURSOR_SHAPE packets that come in any order, keeps those it has seen, and says
// which one to ask the host for. What the host sends is bounded: sizes, the number of images and of
// those half received, and the sum of their bytes; an image whose hash isn't its id is none. One
// thread; no clock of its own.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "apps/client/packet_order.h"
#include "connection/protocol.h"
#include "media/cursor_convert.h"

struct PointerPosition {
  std::uint16_t x = 0;  // of the hot spot, 0 to 65535 across the picture
  std::uint16_t y = 0;
  bool visible = false;
  std::uint32_t shape_id = 0;  // 0: none yet
  bool operator==(const PointerPosition&) const = default;
};

// Pixels as in CursorBitmap: straight alpha; blue, green, red, alpha.
struct PointerImage {
  std::uint32_t id = 0;
  CursorBitmap bitmap;
};

class CursorCache {
 public:
  // CURSOR_POS. True when it says something new; one that was overtaken says nothing.
  bool take_position(const std::uint8_t* packet, std::size_t size, const PacketOrder& order,
                     std::uint64_t now_us);
  // CURSOR_SHAPE. The image, once this packet has made it whole; valid until the next packet.
  const PointerImage* take_shape(const std::uint8_t* packet, std::size_t size,
                                 std::uint64_t now_us);
  // The image to ask the host for now, counted as asked for; 0: none.
  std::uint32_t request_due(std::uint64_t now_us, std::uint64_t rtt_us);

  const PointerPosition& position() const { return position_; }  // the newest
  const PointerImage* find(std::uint32_t id) const;              // null when it isn't known
  const PointerImage* current() const { return find(position_.shape_id); }
  // A new session with the host: it has no position yet. Images are known by what they show.
  void forget_position();

  struct Counts {
    std::uint64_t positions = 0;  // taken
    std::uint64_t overtaken = 0;
    std::uint64_t images = 0;   // made whole
    std::uint64_t refused = 0;  // packets beyond the bounds, and images that aren't their id's
    std::uint64_t requests = 0;
  };
  const Counts& counts() const { return counts_; }

  // Pointers of 256 pixels are the largest that systems offer; the rest is for high resolutions.
  static constexpr int SIDE_MAX = 1024;
  static constexpr std::size_t IMAGES_MAX = 64;  // as many as the host keeps
  static constexpr std::size_t BYTES_MAX = 16U << 20;
  static constexpr std::size_t PARTIALS_MAX = 4;
  std::size_t bytes() const;  // of images and of those half received

 private:
  struct Partial {
    PointerImage image;
    std::vector<bool> have;  // by byte: chunk sizes change with the path
    std::size_t missing = 0;
  };
  bool overtaken(const PacketOrder& order);
  Partial& partial_of(const lund_cursor_shape& shape);
  const PointerImage* keep(PointerImage&& image);

  PointerPosition position_;
  bool position_valid_ = false;
  PacketOrder newest_;
  std::uint32_t former_keys_ = 0;
  std::vector<PointerImage> images_;  // the one used longest ago first
  std::vector<Partial> partials_;     // the oldest first
  std::uint32_t missing_id_ = 0;      // named, but not known
  std::uint64_t ask_at_us_ = 0;
  std::uint64_t asked_ = 0;  // times
  Counts counts_;
};
