// The clipboard engine: moves one item at a time each way between the two ends of a session, over
// datagrams that may be lost, reordered or repeated. Both ends run it. The sender paces an item out
// as type-12 packets in passes, repeats the last chunk until the receiver answers (type 13), and
// sends again what the answer lists as missing; a newer item replaces an older one. Ids are 32-bit
// serial numbers, never 0.
//
// It owns one thread, which sends. Any thread may call. Two locks: the sending half's and the
// receiving half's; the latter is held around the taking of the former, never the other way round.
// `send` is called without a lock, but for acknowledgements, which go out under the receiving
// half's; it may block. `on_data` is called without a lock on the thread that called
// lund_clip_receive. `log` is called with a lock held. Neither `send` nor `log` may call the
// engine.
#pragma once

#include <cstdint>

inline constexpr std::uint32_t LUND_CLIP_TEXT_MAX = 1'048'576;    // bytes of UTF-8
inline constexpr std::uint32_t LUND_CLIP_IMAGE_MAX = 16'777'216;  // bytes of PNG

enum lund_clip_kind : std::uint8_t { LUND_CLIP_TEXT = 1, LUND_CLIP_PNG = 2 };

// Of an acknowledgement.
enum ClipStatus : std::uint8_t { CLIP_COMPLETE = 0, CLIP_MISSING = 1, CLIP_REJECTED = 2 };

struct lund_clip;

struct lund_clip_config {
  void (*send)(void* user, const std::uint8_t* packet, std::uint64_t length) = nullptr;  // required
  // A whole item; the callee owns `data` and releases it by lund_clip_free.
  void (*on_data)(void* user, std::uint32_t id, std::uint8_t kind, std::uint8_t* data,
                  std::uint64_t size) = nullptr;
  void (*log)(void* user, const char* text) = nullptr;  // a line of at most 255 characters
  void* user = nullptr;
  std::uint32_t rate = 0;  // ceiling of what is sent, bytes a second; 0: 5,000,000
};

// Null without `send`, and when the thread or memory can't be had. The record is copied.
lund_clip* lund_clip_create(const lund_clip_config* config);
void lund_clip_destroy(lund_clip* clip);  // joins; null is accepted

// `session` is what the header of each packet must name. `mtu`: the largest packet that the
// session's path carries, bytes. Session 0: none. A change of either drops what is in flight.
void lund_clip_set_session(lund_clip* clip, std::uint32_t session, std::uint64_t mtu);

// Copies the data. The item's id, or 0 when nothing was accepted: no data, no session, an unknown
// kind, above the kind's limit, short of memory.
std::uint32_t lund_clip_offer(lund_clip* clip, std::uint8_t kind, const void* data,
                              std::uint64_t size);

// 1 for a packet of type 12 or 13, even one that is then ignored; else 0.
int lund_clip_receive(lund_clip* clip, const std::uint8_t* packet, std::uint64_t length);

void lund_clip_free(void* data);
