// A fuzz target's input, read from its start; zeros and empty blocks behind its end, so that every
// input means something.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <vector>

class Input {
 public:
  using Bytes = std::vector<std::uint8_t>;

  Input(const std::uint8_t* data, std::size_t size) : data_(data), size_(size) {}
  bool done() const { return size_ == 0; }
  std::uint8_t byte() {
    if (size_ == 0) return 0;
    --size_;
    return *data_++;
  }
  unsigned u16() {  // little-endian
    const unsigned low = byte();
    return low | unsigned{byte()} << 8;
  }
  Bytes bytes(std::size_t wanted) {  // fewer at the end
    const std::size_t size = std::min(wanted, size_);
    const Bytes out(data_, data_ + size);
    data_ += size;
    size_ -= size;
    return out;
  }
  Bytes block() { return bytes(byte()); }  // its size first

 private:
  const std::uint8_t* data_;
  std::size_t size_;
};
