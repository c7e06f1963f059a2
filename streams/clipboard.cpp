#include "streams/clipboard.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <exception>
#include <new>
#include <thread>

#include "streams/clipboard_internal.h"
#include "streams/clipboard_receive.h"
#include "streams/clipboard_send.h"

namespace {

constexpr std::size_t LOG_LINE = 255;  // characters

}  // namespace

ClipBytes clip_allocate(std::size_t size) {
  return ClipBytes(static_cast<std::uint8_t*>(std::malloc(size)));
}

std::uint32_t clip_kind_limit(std::uint8_t kind) {
  switch (kind) {
    case LUND_CLIP_TEXT:
      return LUND_CLIP_TEXT_MAX;
    case LUND_CLIP_PNG:
      return LUND_CLIP_IMAGE_MAX;
    default:
      return 0;
  }
}

const char* clip_kind_name(std::uint8_t kind) {
  switch (kind) {
    case LUND_CLIP_TEXT:
      return "text";
    case LUND_CLIP_PNG:
      return "PNG";
    default:
      return "?";
  }
}

void clip_log(const lund_clip_config& config, const char* format, ...) {
  if (config.log == nullptr) return;
  char line[LOG_LINE + 1];
  va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(line, sizeof line, format, arguments);
  va_end(arguments);
  config.log(config.user, line);
}

struct lund_clip {
  explicit lund_clip(const lund_clip_config& config) : sender(config), receiver(config, sender) {}

  ClipboardSender sender;
  ClipboardReceiver receiver;
  std::thread worker;
};

lund_clip* lund_clip_create_stepped(const lund_clip_config* config) {
  if (config == nullptr || config->send == nullptr) return nullptr;
  return new (std::nothrow) lund_clip(*config);
}

lund_clip* lund_clip_create(const lund_clip_config* config) {
  lund_clip* clip = lund_clip_create_stepped(config);
  if (clip == nullptr) return nullptr;
  try {
    clip->worker = std::thread([clip] { clip->sender.run(); });
  } catch (const std::exception&) {
    lund_clip_destroy(clip);
    return nullptr;
  }
  return clip;
}

void lund_clip_destroy(lund_clip* clip) {
  if (clip == nullptr) return;
  clip->sender.stop();
  if (clip->worker.joinable()) clip->worker.join();
  delete clip;
}

std::optional<std::uint32_t> lund_clip_step(lund_clip* clip) {
  return clip->sender.step();
}

void lund_clip_set_last_id(lund_clip* clip, std::uint32_t id) {
  clip->sender.set_last_id(id);
}

void lund_clip_set_session(lund_clip* clip, std::uint32_t session, std::uint64_t mtu) {
  if (clip == nullptr) return;
  if (session == 0) mtu = 0;
  clip->sender.set_session(session, mtu);
  clip->receiver.set_session(session, mtu);
}

std::uint32_t lund_clip_offer(lund_clip* clip, std::uint8_t kind, const void* data,
                              std::uint64_t size) {
  if (clip == nullptr || data == nullptr || size == 0) return 0;
  return clip->sender.offer(kind, data, size);
}

int lund_clip_receive(lund_clip* clip, const std::uint8_t* packet, std::uint64_t length) {
  lund_packet_header header;
  if (clip == nullptr || lund_decode_header(packet, length, &header) != 0) return 0;
  switch (header.type) {
    case LUND_PKT_CLIPBOARD: {
      lund_clipboard_chunk chunk;
      const std::uint8_t* bytes = nullptr;
      std::size_t size = 0;
      if (lund_decode_clipboard(packet, length, &chunk, &bytes, &size) == 0)
        clip->receiver.receive(header.session_id, chunk, bytes, static_cast<std::uint32_t>(size));
      return 1;
    }
    case LUND_PKT_CLIPBOARD_ACK: {
      lund_clipboard_ack ack;
      if (lund_decode_clipboard_ack(packet, length, &ack) == 0)
        clip->sender.receive_ack(header.session_id, ack);
      return 1;
    }
    default:
      return 0;
  }
}

void lund_clip_free(void* data) {
  std::free(data);
}
