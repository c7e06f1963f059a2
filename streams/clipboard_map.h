// Which bytes of an item have come: a bit a byte, because the size of chunks may change between
// passes and what is sent again need not line up with what came before. A word of 64 at a time, so
// that an item of 16 MB stays cheap. Belongs to whoever holds it; no locks.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <memory>
#include <span>

#include "connection/protocol.h"

class ClipboardMap {
 public:
  bool reset(std::uint32_t size);  // of an item; nothing has come. False when memory is short
  void release();

  // Returns how many of the bytes are new; they lie within the item.
  std::uint32_t mark(std::uint32_t offset, std::uint32_t length);

  // The first gaps, from the item's start, as many as there is room for, at most LUND_RANGES_MAX;
  // how many.
  std::uint8_t gaps(std::span<lund_clipboard_range> room) const;

 private:
  // The first byte from `at` on that has come, or hasn't; the item's size when there is none.
  std::uint32_t next(std::uint32_t at, bool come) const;

  struct Free {
    void operator()(std::uint64_t* words) const { std::free(words); }
  };
  std::unique_ptr<std::uint64_t[], Free> words_;
  std::uint32_t size_ = 0;
};
