// How a captured 32-bit picture maps to the memory of a planar frame. Pure but for FrameBuffer's
// memory.
#pragma once

#include <cstdint>
#include <vector>

namespace lund_cpu {

struct FrameLayout {
  std::int32_t src_width = 0;  // pixels
  std::int32_t src_height = 0;
  std::int32_t src_stride = 0;  // bytes between rows
  std::int32_t dst_width = 0;
  std::int32_t dst_height = 0;
  std::int32_t left = 0;  // of the capture on the virtual desktop
  std::int32_t top = 0;
  std::uint64_t src_bytes = 0;     // needed to read the capture
  std::uint64_t y_bytes = 0;       // the luma plane
  std::uint64_t chroma_bytes = 0;  // one chroma plane
  std::uint64_t i420_bytes = 0;    // all three
};

// Sizes 1..8192, an even destination, a stride of at least 4 bytes a pixel, and at most 128 MiB and
// `buffer_size` of source; false otherwise, with `out` as it was.
bool make_layout(int src_width, int src_height, int src_stride, std::uint64_t buffer_size,
                 int dst_width, int dst_height, int left, int top, FrameLayout* out);

struct FrameBuffer {
  std::vector<std::uint8_t> bytes;
  std::uint64_t generation = 0;  // one more on each reset

  // Zeroed bytes for a picture of this size; false, and empty, for a size out of range or no
  // memory.
  bool reset(int width, int height, int left, int top);
};

}  // namespace lund_cpu
