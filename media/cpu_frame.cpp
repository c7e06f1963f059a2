#include "media/cpu_frame.h"

#include <algorithm>
#include <new>

namespace lund_cpu {

namespace {

constexpr int SIDE_MAX = 8192;                         // pixels
constexpr std::uint64_t SOURCE_BYTES_MAX = 0x8000000;  // 128 MiB
constexpr int PIXEL_BYTES = 4;

bool side_in_range(int pixels) {
  return pixels >= 1 && pixels <= SIDE_MAX;
}

}  // namespace

bool make_layout(int src_width, int src_height, int src_stride, std::uint64_t buffer_size,
                 int dst_width, int dst_height, int left, int top, FrameLayout* out) {
  if (!out || !side_in_range(src_width) || !side_in_range(src_height) ||
      !side_in_range(dst_width) || !side_in_range(dst_height))
    return false;
  if (dst_width % 2 != 0 || dst_height % 2 != 0 || src_stride < src_width * PIXEL_BYTES)
    return false;
  // At most 2^13 rows of less than 2^31 bytes each.
  const std::uint64_t src_bytes =
      static_cast<std::uint64_t>(src_height - 1) * static_cast<std::uint64_t>(src_stride) +
      static_cast<std::uint64_t>(src_width) * PIXEL_BYTES;
  if (src_bytes > std::min(buffer_size, SOURCE_BYTES_MAX)) return false;

  const std::uint64_t y_bytes =
      static_cast<std::uint64_t>(dst_width) * static_cast<std::uint64_t>(dst_height);
  *out = {.src_width = src_width,
          .src_height = src_height,
          .src_stride = src_stride,
          .dst_width = dst_width,
          .dst_height = dst_height,
          .left = left,
          .top = top,
          .src_bytes = src_bytes,
          .y_bytes = y_bytes,
          .chroma_bytes = y_bytes / 4,
          .i420_bytes = y_bytes + 2 * (y_bytes / 4)};
  return true;
}

bool FrameBuffer::reset(int width, int height, int left, int top) {
  bytes.clear();
  ++generation;
  if (!side_in_range(width) || !side_in_range(height)) return false;
  const int stride = width * PIXEL_BYTES;
  FrameLayout layout;
  // Only the source matters here; the destination is the smallest that there is.
  if (!make_layout(width, height, stride,
                   static_cast<std::uint64_t>(stride) * static_cast<std::uint64_t>(height), 2, 2,
                   left, top, &layout))
    return false;
  try {
    bytes.resize(layout.src_bytes);
  } catch (const std::bad_alloc&) {
    return false;
  }
  return true;
}

}  // namespace lund_cpu
