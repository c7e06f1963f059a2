// Marking on Windows: a flow of the quality-of-service service, which marks what goes to the one
// peer. A plain application may not choose the mark itself; the service gives the flow the class of
// its kind of traffic, and EF to an administrator.
#include "host/udp.h"

#include "host/windows/qos.h"
// clang-format off
#include <ws2tcpip.h>
#include <mswsock.h>
// clang-format on

#include <atomic>
#include <condition_variable>
#include <cstring>
#include <mutex>

#include "control/log.h"

namespace {

constexpr int SEND_BUFFER_BYTES = 4'194'304;  // a key frame's burst
constexpr int RECEIVE_BUFFER_BYTES = 1'048'576;
constexpr DWORD DSCP_EF = 46;  // RFC 3246

// Room for the one control message of a datagram.
union PacketInfoControl {
  WSACMSGHDR aligned;
  char bytes[WSA_CMSG_SPACE(sizeof(IN_PKTINFO))];
};
static_assert(sizeof(PacketInfoControl) == 24);

struct SocketKind {
  using Value = SOCKET;
  static Value none() { return INVALID_SOCKET; }
  static void close(Value value) { closesocket(value); }
};
using Socket = Owned<SocketKind>;

bool to_sockaddr(const lund_rv_endpoint& from, sockaddr_in* to) {
  return from.family == 4 && lund_addr_to_sockaddr(from, to, sizeof(*to), false) == sizeof(*to);
}

void set_option(SOCKET socket, int level, int option, int value) {
  setsockopt(socket, level, option, reinterpret_cast<const char*>(&value), sizeof(value));
}

// Otherwise an ICMP port-unreachable of a client that has gone fails a later receive.
void ignore_port_unreachable(SOCKET socket) {
  BOOL report = FALSE;
  DWORD returned = 0;
  WSAIoctl(socket, SIO_UDP_CONNRESET, &report, sizeof(report), nullptr, 0, &returned, nullptr,
           nullptr);
}

// The function that tells where a datagram was sent to; null where it can't be had.
LPFN_WSARECVMSG receive_function(SOCKET socket) {
  GUID wanted = WSAID_WSARECVMSG;
  LPFN_WSARECVMSG function = nullptr;
  DWORD returned = 0;
  const int result = WSAIoctl(socket, SIO_GET_EXTENSION_FUNCTION_POINTER, &wanted, sizeof(wanted),
                              &function, sizeof(function), &returned, nullptr, nullptr);
  return result == 0 ? function : nullptr;
}

QosHandle open_qos() {
  QOS_VERSION version{1, 0};
  HANDLE opened = nullptr;
  const QosCalls& qos = system_qos();
  return QosHandle(qos && qos.create_handle(&version, &opened) ? opened : nullptr);
}

// A message with one buffer, and room for control data.
WSAMSG message_of(sockaddr_in* name, WSABUF* bytes, PacketInfoControl* control) {
  WSAMSG message{};
  message.name = reinterpret_cast<sockaddr*>(name);
  message.namelen = sizeof(*name);
  message.lpBuffers = bytes;
  message.dwBufferCount = 1;
  message.Control = {sizeof(control->bytes), control->bytes};
  return message;
}

std::uint32_t destination_of(WSAMSG& message) {
  for (WSACMSGHDR* entry = WSA_CMSG_FIRSTHDR(&message); entry != nullptr;
       entry = WSA_CMSG_NXTHDR(&message, entry)) {
    if (entry->cmsg_level != IPPROTO_IP || entry->cmsg_type != IP_PKTINFO) continue;
    IN_PKTINFO info{};
    std::memcpy(&info, WSA_CMSG_DATA(entry), sizeof(info));
    return info.ipi_addr.s_addr;
  }
  return 0;
}

// A datagram that was longer than the buffer is lost, and no error.
int failed_receive() {
  return WSAGetLastError() == WSAEMSGSIZE ? 0 : -1;
}

}  // namespace

struct UdpSocket::Impl {
  // INVALID_SOCKET while closed. Taking it out is what closes: who sends meanwhile finds nothing,
  // or fails in the system.
  std::atomic<SOCKET> handle{INVALID_SOCKET};
  std::atomic<std::uint32_t> users{0};  // calls under way, of a closed socket too
  std::mutex left_mutex;
  std::condition_variable left;  // of users, when the last one of a closed socket has gone
  LPFN_WSARECVMSG recv_msg = nullptr;
  std::mutex qos_mutex;  // the next two
  QosHandle qos_handle;  // null where there is no such service
  QOS_FLOWID qos_flow = 0;
  bool wsa_started = false;

  // A call's hold on the socket. The system gives a closed one's number to the next: nothing is
  // opened here until the last call by the former has ended.
  class Use {
   public:
    explicit Use(Impl& impl);
    ~Use();
    Use(const Use&) = delete;
    Use& operator=(const Use&) = delete;
    explicit operator bool() const { return socket_ != INVALID_SOCKET; }
    SOCKET socket() const { return socket_; }

   private:
    void leave();

    Impl& impl_;
    SOCKET socket_ = INVALID_SOCKET;
  };

  void wait_until_free();
  const char* failed_step(std::uint16_t port, int* error);
  int receive(SOCKET socket, WSABUF bytes, sockaddr_in* from, std::uint32_t* sent_to);
  bool send_by(SOCKET socket, const void* data, std::uint64_t size, sockaddr_in to,
               std::uint32_t source_ip);

  enum class Mark { None, Unmarked, TrafficClass, Ef };
  Mark start_flow(sockaddr_in peer, DWORD* error);
  void end_flow();  // with the mutex held
};

// Closed ones are not entered, so that whoever opens waits for the last calls alone.
UdpSocket::Impl::Use::Use(Impl& impl) : impl_(impl) {
  if (impl.handle == INVALID_SOCKET) return;
  ++impl.users;
  socket_ = impl.handle;
  if (!*this) leave();
}
UdpSocket::Impl::Use::~Use() {
  if (*this) leave();
}
void UdpSocket::Impl::Use::leave() {
  if (--impl_.users != 0 || impl_.handle != INVALID_SOCKET) return;
  const std::scoped_lock lock(impl_.left_mutex);
  impl_.left.notify_all();
}

UdpSocket::UdpSocket() : impl_(std::make_unique<Impl>()) {}
UdpSocket::~UdpSocket() {
  close();
}

bool UdpSocket::open(std::uint16_t port, std::string* error) {
  close();
  impl_->wait_until_free();
  int code = 0;
  if (const char* step = impl_->failed_step(port, &code)) {
    if (error != nullptr) *error = std::string(step) + " failed (" + error_text(code) + ")";
    close();
    return false;
  }
  return true;
}

void UdpSocket::Impl::wait_until_free() {
  std::unique_lock lock(left_mutex);
  left.wait(lock, [this] { return users == 0; });
}

// Null when all of them were done. The socket is let out only when it is bound: a datagram that is
// sent by another one binds it to a port of the system's choice.
const char* UdpSocket::Impl::failed_step(std::uint16_t port, int* error) {
  WSADATA data;
  *error = WSAStartup(MAKEWORD(2, 2), &data);
  if (*error != 0) return "WSAStartup";
  wsa_started = true;
  Socket socket(::socket(AF_INET, SOCK_DGRAM, IPPROTO_UDP));
  *error = WSAGetLastError();
  if (!socket) return "socket";
  set_option(socket.get(), SOL_SOCKET, SO_SNDBUF, SEND_BUFFER_BYTES);
  set_option(socket.get(), SOL_SOCKET, SO_RCVBUF, RECEIVE_BUFFER_BYTES);
  set_option(socket.get(), IPPROTO_IP, IP_PKTINFO, 1);
  ignore_port_unreachable(socket.get());
  recv_msg = receive_function(socket.get());
  sockaddr_in local{};
  local.sin_family = AF_INET;
  local.sin_port = htons(port);
  local.sin_addr.s_addr = htonl(INADDR_ANY);
  const int bound = bind(socket.get(), reinterpret_cast<const sockaddr*>(&local), sizeof(local));
  *error = WSAGetLastError();
  if (bound != 0) return "bind";
  const std::scoped_lock lock(qos_mutex);
  handle = socket.release();
  qos_handle = open_qos();
  return nullptr;
}

void UdpSocket::close() {
  {
    const std::scoped_lock lock(impl_->qos_mutex);
    impl_->end_flow();
    impl_->qos_handle.reset();
  }
  const SOCKET socket = impl_->handle.exchange(INVALID_SOCKET);
  if (socket != INVALID_SOCKET) closesocket(socket);
  if (std::exchange(impl_->wsa_started, false)) WSACleanup();
}

bool UdpSocket::is_open() const {
  return impl_->handle != INVALID_SOCKET;
}

int UdpSocket::recv(std::uint8_t* buffer, int size, Peer* peer) {
  const Impl::Use use(*impl_);
  if (!use) return -1;
  *peer = Peer{};
  sockaddr_in from{};
  const WSABUF bytes{static_cast<ULONG>(size), reinterpret_cast<char*>(buffer)};
  const int received = impl_->receive(use.socket(), bytes, &from, &peer->source_ip);
  lund_addr_from_sockaddr(&peer->address, reinterpret_cast<const sockaddr*>(&from), sizeof(from));
  return received;
}

int UdpSocket::Impl::receive(SOCKET socket, WSABUF bytes, sockaddr_in* from,
                             std::uint32_t* sent_to) {
  if (recv_msg == nullptr) {
    int name_size = sizeof(*from);
    const int received = recvfrom(socket, bytes.buf, static_cast<int>(bytes.len), 0,
                                  reinterpret_cast<sockaddr*>(from), &name_size);
    return received < 0 ? failed_receive() : received;
  }
  PacketInfoControl control{};
  WSAMSG message = message_of(from, &bytes, &control);
  DWORD received = 0;
  if (recv_msg(socket, &message, &received, nullptr, nullptr) != 0) return failed_receive();
  *sent_to = destination_of(message);
  return static_cast<int>(received);
}

int UdpSocket::last_error() const {
  return WSAGetLastError();
}
bool UdpSocket::interrupted(int error) {
  return error == WSAEINTR;
}
std::string UdpSocket::error_text(int error) {
  return "WSA error " + std::to_string(error);
}

bool UdpSocket::send(const void* data, std::uint64_t size, const lund_rv_endpoint& to) {
  return send_from(data, size, to, 0);
}

bool UdpSocket::send_from(const void* data, std::uint64_t size, const lund_rv_endpoint& to,
                          std::uint32_t source_ip) {
  const Impl::Use use(*impl_);
  sockaddr_in name{};
  if (!use || !to_sockaddr(to, &name)) return false;
  // Otherwise from the address that the routing table chooses.
  if (source_ip != 0 && impl_->send_by(use.socket(), data, size, name, source_ip)) return true;
  const int sent = sendto(use.socket(), static_cast<const char*>(data), static_cast<int>(size), 0,
                          reinterpret_cast<const sockaddr*>(&name), static_cast<int>(sizeof(name)));
  return sent >= 0 && static_cast<std::uint64_t>(sent) == size;
}

bool UdpSocket::Impl::send_by(SOCKET socket, const void* data, std::uint64_t size, sockaddr_in to,
                              std::uint32_t source_ip) {
  WSABUF bytes{static_cast<ULONG>(size), const_cast<char*>(static_cast<const char*>(data))};
  PacketInfoControl control{};
  WSAMSG message = message_of(&to, &bytes, &control);
  WSACMSGHDR* header = WSA_CMSG_FIRSTHDR(&message);
  header->cmsg_len = WSA_CMSG_LEN(sizeof(IN_PKTINFO));
  header->cmsg_level = IPPROTO_IP;
  header->cmsg_type = IP_PKTINFO;
  IN_PKTINFO info{};
  info.ipi_addr.s_addr = source_ip;
  std::memcpy(WSA_CMSG_DATA(header), &info, sizeof(info));
  DWORD sent = 0;
  return WSASendMsg(socket, &message, 0, &sent, nullptr, nullptr) == 0;
}

// ---- The mark

void UdpSocket::qos_set_peer(const lund_rv_endpoint& to) {
  sockaddr_in peer{};
  if (!to_sockaddr(to, &peer)) return qos_clear();
  DWORD error = 0;
  switch (impl_->start_flow(peer, &error)) {
    case Impl::Mark::None:
      break;
    case Impl::Mark::Unmarked:
      hlog("QoS: QOSAddSocketToFlow failed (%lu); packets go out unmarked", error);
      break;
    case Impl::Mark::TrafficClass:
      hlog("QoS: DSCP CS5 (audio/video class); EF needs administrator rights");
      break;
    case Impl::Mark::Ef:
      hlog("QoS: DSCP EF (46) on traffic to the client");
      break;
  }
}

UdpSocket::Impl::Mark UdpSocket::Impl::start_flow(sockaddr_in peer, DWORD* error) {
  const std::scoped_lock lock(qos_mutex);
  end_flow();
  const SOCKET socket = handle;
  if (socket == INVALID_SOCKET || !qos_handle) return Mark::None;
  const QosCalls& qos = system_qos();
  QOS_FLOWID flow = 0;  // says: a new one
  if (!qos.add_socket_to_flow(qos_handle.get(), socket, reinterpret_cast<sockaddr*>(&peer),
                              QOSTrafficTypeAudioVideo, QOS_NON_ADAPTIVE_FLOW, &flow)) {
    *error = GetLastError();
    return Mark::Unmarked;
  }
  qos_flow = flow;
  DWORD dscp = DSCP_EF;
  const BOOL set = qos.set_flow(qos_handle.get(), flow, QOSSetOutgoingDSCPValue, sizeof(dscp),
                                &dscp, 0, nullptr);
  return set ? Mark::Ef : Mark::TrafficClass;
}

void UdpSocket::qos_clear() {
  const std::scoped_lock lock(impl_->qos_mutex);
  impl_->end_flow();
}

void UdpSocket::Impl::end_flow() {
  const SOCKET socket = handle;
  const QOS_FLOWID flow = std::exchange(qos_flow, 0);
  if (qos_handle && flow != 0 && socket != INVALID_SOCKET)
    system_qos().remove_socket_from_flow(qos_handle.get(), socket, flow, 0);
}
