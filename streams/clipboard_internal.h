// What the two halves of the clipboard engine share, and the engine without its thread: so that the
// rules of sending are tested, and run in the simulator, a step at a time on any clock.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <optional>

#include "connection/printf_format.h"
#include "streams/clipboard.h"

inline constexpr std::uint32_t CLIP_PACKET_MAX = 1472;  // an Ethernet frame's, as UDP over IPv4

// From malloc, because an item changes hands through a C interface and a failure is an answer.
struct ClipFree {
  void operator()(void* memory) const { std::free(memory); }
};
using ClipBytes = std::unique_ptr<std::uint8_t[], ClipFree>;
ClipBytes clip_allocate(std::size_t size);  // null when memory is short

std::uint32_t clip_kind_limit(std::uint8_t kind);  // bytes; 0 for an unknown kind
const char* clip_kind_name(std::uint8_t kind);     // "?" for an unknown kind

// Ids are serial numbers that wrap: the one that is behind by less than half the circle is older.
inline bool clip_older(std::uint32_t id, std::uint32_t than) {
  return static_cast<std::int32_t>(id - than) < 0;
}

// One line to the configured log, cut at 255 characters.
LUND_PRINTF(2, 3) void clip_log(const lund_clip_config& config, const char* format, ...);

// As lund_clip_create, but what its thread would do is done by lund_clip_step.
lund_clip* lund_clip_create_stepped(const lund_clip_config* config);

// One step of sending, on one thread at a time: at most one packet. Returns after how many
// milliseconds the next one is due; nothing when only a call of the engine makes one due.
std::optional<std::uint32_t> lund_clip_step(lund_clip* clip);

// The id after which the next item is numbered.
void lund_clip_set_last_id(lund_clip* clip, std::uint32_t id);
