#include "streams/clipboard_map.h"

#include <bit>
#include <cassert>

namespace {

constexpr std::uint32_t WORD_BITS = 64;
constexpr std::uint64_t FULL = ~std::uint64_t{0};

std::uint32_t set(std::uint64_t& word, std::uint64_t bits) {
  const std::uint64_t added = bits & ~word;
  word |= bits;
  return static_cast<std::uint32_t>(std::popcount(added));
}

}  // namespace

bool ClipboardMap::reset(std::uint32_t size) {
  // Zeroed pages come from the system as they are first used: a packet that merely announces an
  // item costs no work.
  words_.reset(static_cast<std::uint64_t*>(
      std::calloc((size + WORD_BITS - 1) / WORD_BITS, sizeof(std::uint64_t))));
  size_ = words_ ? size : 0;
  return words_ != nullptr;
}

void ClipboardMap::release() {
  words_.reset();
  size_ = 0;
}

std::uint32_t ClipboardMap::mark(std::uint32_t offset, std::uint32_t length) {
  assert(offset <= size_ && length <= size_ - offset);
  if (length == 0) return 0;
  const std::uint32_t last = offset + length - 1;
  std::uint64_t* word = &words_[offset / WORD_BITS];
  std::uint64_t* const last_word = &words_[last / WORD_BITS];
  const std::uint64_t from_first = FULL << (offset % WORD_BITS);
  const std::uint64_t to_last = FULL >> (WORD_BITS - 1 - last % WORD_BITS);
  if (word == last_word) return set(*word, from_first & to_last);
  std::uint32_t added = set(*word++, from_first);
  for (; word != last_word; ++word) {
    if (*word == 0)
      added += WORD_BITS;
    else if (*word != FULL)
      added += set(*word, FULL);
    *word = FULL;
  }
  return added + set(*last_word, to_last);
}

std::uint32_t ClipboardMap::next(std::uint32_t at, bool come) const {
  const std::uint64_t flip = come ? 0 : FULL;
  std::uint64_t ahead = FULL << (at % WORD_BITS);  // of the first word
  for (std::uint32_t word = at / WORD_BITS; word * WORD_BITS < size_; ++word) {
    const std::uint64_t found = (words_[word] ^ flip) & ahead;
    // Never behind the item's end: the bits there are all unset.
    if (found != 0) return word * WORD_BITS + static_cast<std::uint32_t>(std::countr_zero(found));
    ahead = FULL;
  }
  return size_;
}

std::uint8_t ClipboardMap::gaps(std::span<lund_clipboard_range> room) const {
  std::size_t count = 0;
  for (std::uint32_t end = 0; count < room.size(); ++count) {
    const std::uint32_t start = next(end, false);
    if (start == size_) break;
    end = next(start, true);
    room[count] = {.offset = start, .length = end - start};
  }
  return static_cast<std::uint8_t>(count);
}
