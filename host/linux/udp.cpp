// Marking on Linux: no flow object, but an IP_TOS control message on each datagram to the one peer.
// The kernel says on the datagram itself whether it allows the mark, so the fall-back is decided
// there: EF, then the audio/video class, then none.
#include "host/udp.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <atomic>
#include <cerrno>
#include <cstring>

#include "control/log.h"
#include "host/linux/guarded_descriptor.h"

namespace {

constexpr int SEND_BUFFER_BYTES = 4'194'304;  // a key frame's burst
constexpr int RECEIVE_BUFFER_BYTES = 1'048'576;

constexpr std::uint8_t DSCP_EF = 46;   // RFC 3246
constexpr std::uint8_t DSCP_CS5 = 40;  // RFC 2474
constexpr int TOS_SHIFT = 2;           // the DSCP is the upper six bits of the TOS byte

thread_local int last_recv_error = 0;

// The marked peer and its mark as one word, so that senders read it without a lock: address, port,
// one byte of zeros, DSCP. 0 while there is none.
std::uint64_t mark_word(const sockaddr_in& peer, std::uint8_t dscp) {
  return std::uint64_t{peer.sin_addr.s_addr} << 32 | std::uint64_t{peer.sin_port} << 16 | dscp;
}
std::uint8_t mark_dscp(std::uint64_t word) {
  return static_cast<std::uint8_t>(word & 0xFF);
}

bool to_sockaddr(const lund_rv_endpoint& from, sockaddr_in* to) {
  return from.family == 4 && lund_addr_to_sockaddr(from, to, sizeof(*to), false) == sizeof(*to);
}

// The forcing options pass the system-wide limit; they need CAP_NET_ADMIN, hence the second try.
void set_buffer(int descriptor, int forced, int plain, int bytes) {
  if (setsockopt(descriptor, SOL_SOCKET, forced, &bytes, sizeof(bytes)) == 0) return;
  setsockopt(descriptor, SOL_SOCKET, plain, &bytes, sizeof(bytes));
}

// Room for the two control messages of a datagram that goes out.
union SendControl {
  cmsghdr aligned;
  char bytes[CMSG_SPACE(sizeof(in_pktinfo)) + CMSG_SPACE(sizeof(int))];
};

class ControlWriter {
 public:
  ControlWriter(msghdr* message, SendControl* control) : message_(message) {
    message->msg_control = control->bytes;
    message->msg_controllen = 0;
  }

  template <typename Value>
  void add(int type, const Value& value) {
    auto* header = reinterpret_cast<cmsghdr*>(static_cast<char*>(message_->msg_control) +
                                              message_->msg_controllen);
    header->cmsg_level = IPPROTO_IP;
    header->cmsg_type = type;
    header->cmsg_len = CMSG_LEN(sizeof(value));
    std::memcpy(CMSG_DATA(header), &value, sizeof(value));
    message_->msg_controllen += CMSG_SPACE(sizeof(value));
  }

 private:
  msghdr* message_;
};

struct Outgoing {
  int descriptor;
  const void* data;
  std::size_t size;
  sockaddr_in to;
};

// One system call; 0, or the error. A datagram that went out in part counts as too long.
int send_once(const Outgoing& datagram, std::uint32_t source_ip, std::uint8_t dscp) {
  sockaddr_in to = datagram.to;
  iovec bytes{const_cast<void*>(datagram.data), datagram.size};
  msghdr message{};
  message.msg_name = &to;
  message.msg_namelen = sizeof(to);
  message.msg_iov = &bytes;
  message.msg_iovlen = 1;
  SendControl control{};
  ControlWriter writer(&message, &control);
  if (source_ip != 0) {
    in_pktinfo info{};
    info.ipi_spec_dst.s_addr = source_ip;
    writer.add(IP_PKTINFO, info);
  }
  if (dscp != 0) writer.add(IP_TOS, int{dscp << TOS_SHIFT});
  const ssize_t sent = sendmsg(datagram.descriptor, &message, MSG_NOSIGNAL);
  if (sent < 0) return errno;
  return static_cast<std::size_t>(sent) == datagram.size ? 0 : EMSGSIZE;
}

// What a kernel or a security policy answers to a mark that it doesn't allow.
bool may_refuse_mark(int error) {
  return error == EPERM || error == EACCES || error == EINVAL || error == EOPNOTSUPP ||
         error == ENOPROTOOPT;
}

std::uint32_t destination_of(const msghdr& message) {
  auto* header = const_cast<msghdr*>(&message);
  for (cmsghdr* entry = CMSG_FIRSTHDR(header); entry != nullptr;
       entry = CMSG_NXTHDR(header, entry)) {
    if (entry->cmsg_level != IPPROTO_IP || entry->cmsg_type != IP_PKTINFO) continue;
    in_pktinfo info{};
    std::memcpy(&info, CMSG_DATA(entry), sizeof(info));
    return info.ipi_addr.s_addr;
  }
  return 0;
}

std::string failure_text(const char* step, int error) {
  return std::string(step) + " failed (" + UdpSocket::error_text(error) + ")";
}

}  // namespace

struct UdpSocket::Impl {
  GuardedDescriptor socket;
  // One word, so that marking needs no lock here: senders read it, and a step down replaces only
  // the very mark that was refused.
  std::atomic<std::uint64_t> mark{0};

  std::uint8_t dscp_for(const sockaddr_in& to) const {
    const std::uint64_t word = mark.load(std::memory_order_relaxed);
    return word == mark_word(to, mark_dscp(word)) ? mark_dscp(word) : 0;
  }

  bool send(const void* data, std::uint64_t size, const lund_rv_endpoint& to,
            std::uint32_t source_ip);
  int send_marked(const Outgoing& datagram, std::uint32_t source_ip);
  void step_down(const sockaddr_in& peer, std::uint8_t refused, int error);
};

UdpSocket::UdpSocket() : impl_(std::make_unique<Impl>()) {}
UdpSocket::~UdpSocket() {
  close();
}

bool UdpSocket::open(std::uint16_t port, std::string* error) {
  close();
  impl_->socket.wait_until_free();  // it may hold the very port
  const int descriptor = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, IPPROTO_UDP);
  if (descriptor < 0) {
    if (error != nullptr) *error = failure_text("socket", errno);
    return false;
  }
  set_buffer(descriptor, SO_SNDBUFFORCE, SO_SNDBUF, SEND_BUFFER_BYTES);
  set_buffer(descriptor, SO_RCVBUFFORCE, SO_RCVBUF, RECEIVE_BUFFER_BYTES);
  const int on = 1;
  setsockopt(descriptor, IPPROTO_IP, IP_PKTINFO, &on, sizeof(on));
  sockaddr_in local{};
  local.sin_family = AF_INET;
  local.sin_port = htons(port);
  local.sin_addr.s_addr = htonl(INADDR_ANY);
  if (bind(descriptor, reinterpret_cast<const sockaddr*>(&local), sizeof(local)) != 0) {
    if (error != nullptr) *error = failure_text("bind", errno);
    ::close(descriptor);
    return false;
  }
  impl_->socket.open(descriptor);
  return true;
}

// An unconnected socket answers shutdown with ENOTCONN and wakes its receiver all the same.
void UdpSocket::close() {
  qos_clear();
  impl_->socket.close([](int descriptor) { shutdown(descriptor, SHUT_RDWR); });
}

bool UdpSocket::is_open() const {
  return impl_->socket.is_open();
}

int UdpSocket::recv(std::uint8_t* buffer, int size, Peer* peer) {
  const GuardedDescriptor::Use use(impl_->socket);
  if (!use) return -1;
  *peer = Peer{};
  sockaddr_in from{};
  iovec bytes{buffer, static_cast<std::size_t>(size)};
  union {
    cmsghdr aligned;
    char bytes[CMSG_SPACE(sizeof(in_pktinfo))];
  } control{};
  msghdr message{};
  message.msg_name = &from;
  message.msg_namelen = sizeof(from);
  message.msg_iov = &bytes;
  message.msg_iovlen = 1;
  message.msg_control = control.bytes;
  message.msg_controllen = sizeof(control.bytes);
  const ssize_t received = recvmsg(use.descriptor(), &message, 0);
  if (received < 0) last_recv_error = errno;
  // A wake-up by close() looks like an empty datagram.
  if (received < 0 || !is_open()) return -1;
  if ((message.msg_flags & MSG_TRUNC) != 0) return 0;
  lund_addr_from_sockaddr(&peer->address, reinterpret_cast<const sockaddr*>(&from), sizeof(from));
  peer->source_ip = destination_of(message);
  return static_cast<int>(received);
}

int UdpSocket::last_error() const {
  return last_recv_error;
}
bool UdpSocket::interrupted(int error) {
  return error == EINTR;
}
std::string UdpSocket::error_text(int error) {
  return "errno " + std::to_string(error);
}

bool UdpSocket::send(const void* data, std::uint64_t size, const lund_rv_endpoint& to) {
  return impl_->send(data, size, to, 0);
}

bool UdpSocket::send_from(const void* data, std::uint64_t size, const lund_rv_endpoint& to,
                          std::uint32_t source_ip) {
  return impl_->send(data, size, to, source_ip);
}

bool UdpSocket::Impl::send(const void* data, std::uint64_t size, const lund_rv_endpoint& to,
                           std::uint32_t source_ip) {
  const GuardedDescriptor::Use use(socket);
  Outgoing datagram{};
  if (!use || !to_sockaddr(to, &datagram.to)) return false;
  datagram.descriptor = use.descriptor();
  datagram.data = data;
  datagram.size = static_cast<std::size_t>(size);
  if (source_ip != 0 && send_marked(datagram, source_ip) == 0) return true;
  return send_marked(datagram, 0) == 0;
}

int UdpSocket::Impl::send_marked(const Outgoing& datagram, std::uint32_t source_ip) {
  const std::uint8_t dscp = dscp_for(datagram.to);
  const int error = send_once(datagram, source_ip, dscp);
  if (dscp == 0 || error == 0 || !may_refuse_mark(error)) return error;
  const int unmarked_error = send_once(datagram, source_ip, 0);
  // It was the mark only if the same datagram passes without.
  if (unmarked_error == 0) step_down(datagram.to, dscp, error);
  return unmarked_error;
}

void UdpSocket::Impl::step_down(const sockaddr_in& peer, std::uint8_t refused, int error) {
  const std::uint8_t next = refused == DSCP_EF ? DSCP_CS5 : std::uint8_t{0};
  std::uint64_t expected = mark_word(peer, refused);
  if (!mark.compare_exchange_strong(expected, next != 0 ? mark_word(peer, next) : 0)) return;
  if (next != 0) {
    hlog("QoS: DSCP CS5 (audio/video class); EF needs administrator rights");
  } else {
    hlog("QoS: IP_TOS failed (%d); packets go out unmarked", error);
  }
}

void UdpSocket::qos_set_peer(const lund_rv_endpoint& to) {
  sockaddr_in peer{};
  const bool marks = is_open() && to_sockaddr(to, &peer);
  impl_->mark = marks ? mark_word(peer, DSCP_EF) : 0;
  if (marks) hlog("QoS: DSCP EF (46) on traffic to the client");
}

void UdpSocket::qos_clear() {
  impl_->mark = 0;
}
