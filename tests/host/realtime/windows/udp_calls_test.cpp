// What the socket asks of the system, and how it takes a refusal: the flow that marks what goes to
// the client, the address that a datagram leaves by, the function that tells where one came to. The
// functions here stand before the system's own, record what they are asked, and pass it on unless a
// test says otherwise.
#include <gmock/gmock.h>

#include "host/windows/qos.h"
// clang-format off
#include <ws2tcpip.h>
#include <mswsock.h>
// clang-format on

#include <atomic>
#include <bit>
#include <cstring>
#include <mutex>
#include <thread>

#include "host/udp.h"
#include "tests/support/captured_log.h"
#include "tests/support/windows/recorded_calls.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr int RECEIVE_TIMEOUT_MS = 10'000;
const HANDLE SERVICE = reinterpret_cast<HANDLE>(0x51);

// What the system is to answer, and what it was asked. Other tests' threads pass here too.
struct System {
  bool qos = false;         // a service that answers as said below, in place of the system's own
  bool qos_absent = false;  // no service
  DWORD add_error = 0;
  bool mark_refused = false;
  QOS_FLOWID next_flow = 7;
  std::atomic<bool> no_qos_library{false};
  std::atomic<bool> source_refused{false};
  std::atomic<bool> no_receive_function{false};
  std::vector<std::string> calls;
  std::vector<char> control;  // of the last datagram with any

  void reset() {
    qos = qos_absent = mark_refused = false;
    add_error = 0;
    next_flow = 7;
    no_qos_library = source_refused = no_receive_function = false;
    calls.clear();
    control.clear();
  }
};
System g_system;
std::mutex g_mutex;  // of all but the atomic ones

std::string text(const sockaddr* address) {
  lund_rv_endpoint endpoint;
  lund_addr_from_sockaddr(&endpoint, address, sizeof(sockaddr_in));
  char out[LUND_ADDR_TEXT];
  lund_addr_format(out, sizeof out, endpoint);
  return out;
}

}  // namespace

// The system's own, where there is one.
static const QosCalls& own_qos() {
  static const QosCalls calls = load_qos(L"qwave.dll");
  return calls;
}

static WINBOOL WINAPI create_handle(PQOS_VERSION version, PHANDLE handle) {
  const std::scoped_lock lock(g_mutex);
  g_system.calls.push_back("create " + std::to_string(version->MajorVersion) + "." +
                           std::to_string(version->MinorVersion));
  if (g_system.qos_absent) return FALSE;
  if (!g_system.qos) return own_qos() && own_qos().create_handle(version, handle);
  *handle = SERVICE;
  return TRUE;
}

static WINBOOL WINAPI close_handle(HANDLE handle) {
  const std::scoped_lock lock(g_mutex);
  g_system.calls.emplace_back("close");
  return handle == SERVICE || own_qos().close_handle(handle);
}

static WINBOOL WINAPI add_socket_to_flow(HANDLE handle, SOCKET socket, PSOCKADDR to,
                                         QOS_TRAFFIC_TYPE type, DWORD flags, PQOS_FLOWID flow) {
  const std::scoped_lock lock(g_mutex);
  g_system.calls.push_back("add " + text(to) + " type " + std::to_string(type) + " flags " +
                           std::to_string(flags) + " to " + std::to_string(*flow));
  if (handle != SERVICE) return own_qos().add_socket_to_flow(handle, socket, to, type, flags, flow);
  SetLastError(g_system.add_error);
  if (g_system.add_error != 0) return FALSE;
  *flow = g_system.next_flow++;
  return TRUE;
}

static WINBOOL WINAPI set_flow(HANDLE handle, QOS_FLOWID flow, QOS_SET_FLOW operation, ULONG size,
                               PVOID buffer, DWORD flags, LPOVERLAPPED overlapped) {
  const std::scoped_lock lock(g_mutex);
  DWORD value = 0;
  if (size == sizeof value) std::memcpy(&value, buffer, size);
  g_system.calls.push_back("set " + std::to_string(flow) + " operation " +
                           std::to_string(operation) + " value " + std::to_string(value));
  if (handle != SERVICE)
    return own_qos().set_flow(handle, flow, operation, size, buffer, flags, overlapped);
  if (g_system.mark_refused) SetLastError(ERROR_ACCESS_DISABLED_BY_POLICY);
  return !g_system.mark_refused;
}

static WINBOOL WINAPI remove_socket_from_flow(HANDLE handle, SOCKET socket, QOS_FLOWID flow,
                                              DWORD flags) {
  const std::scoped_lock lock(g_mutex);
  g_system.calls.push_back("remove " + std::to_string(flow) + " flags " + std::to_string(flags));
  return handle == SERVICE || own_qos().remove_socket_from_flow(handle, socket, flow, flags);
}

const QosCalls& system_qos() {
  static const QosCalls recorded{create_handle, close_handle, add_socket_to_flow,
                                 remove_socket_from_flow, set_flow};
  static const QosCalls none;
  return g_system.no_qos_library ? none : recorded;
}

extern "C" {

int WSAAPI WSASendMsg(SOCKET socket, LPWSAMSG message, DWORD flags, LPDWORD sent,
                      LPWSAOVERLAPPED overlapped, LPWSAOVERLAPPED_COMPLETION_ROUTINE routine) {
  {
    const std::scoped_lock lock(g_mutex);
    g_system.control.assign(message->Control.buf, message->Control.buf + message->Control.len);
  }
  if (g_system.source_refused) {
    WSASetLastError(WSAEADDRNOTAVAIL);
    return SOCKET_ERROR;
  }
  static const auto pass = system_function(L"ws2_32.dll", "WSASendMsg", &WSASendMsg);
  return pass(socket, message, flags, sent, overlapped, routine);
}

static int WSAAPI recorded_startup(WORD version, WSADATA* data) {
  if (RecordedCalls::refuse("WSAStartup " + std::to_string(version))) return WSAENOBUFS;
  return system_function(L"ws2_32.dll", "WSAStartup", &WSAStartup)(version, data);
}

static int WSAAPI recorded_cleanup() {
  RecordedCalls::refuse("WSACleanup");
  return system_function(L"ws2_32.dll", "WSACleanup", &WSACleanup)();
}

static SOCKET WSAAPI recorded_socket(int family, int type, int protocol) {
  if (RecordedCalls::refuse("socket " + std::to_string(family) + " " + std::to_string(type) + " " +
                            std::to_string(protocol)))
    return INVALID_SOCKET;
  static const auto pass = system_function(L"ws2_32.dll", "socket", &socket);
  return pass(family, type, protocol);
}

static int WSAAPI recorded_option(SOCKET socket, int level, int option, const char* bytes,
                                  int size) {
  int value = -1;
  if (size == sizeof value) std::memcpy(&value, bytes, sizeof value);
  if (RecordedCalls::refuse("option " + std::to_string(level) + "/" + std::to_string(option) + " " +
                            std::to_string(value)))
    return SOCKET_ERROR;
  static const auto pass = system_function(L"ws2_32.dll", "setsockopt", &setsockopt);
  return pass(socket, level, option, bytes, size);
}

static int WSAAPI recorded_bind(SOCKET socket, const sockaddr* name, int size) {
  if (RecordedCalls::refuse("bind " + text(name))) return SOCKET_ERROR;
  static const auto pass = system_function(L"ws2_32.dll", "bind", &bind);
  return pass(socket, name, size);
}

static int WSAAPI recorded_close(SOCKET socket) {
  RecordedCalls::refuse("closesocket");
  static const auto pass = system_function(L"ws2_32.dll", "closesocket", &closesocket);
  return pass(socket);
}

static int WSAAPI recorded_ioctl(SOCKET socket, DWORD code, LPVOID in, DWORD in_size, LPVOID out,
                                 DWORD out_size, LPDWORD returned, LPWSAOVERLAPPED overlapped,
                                 LPWSAOVERLAPPED_COMPLETION_ROUTINE routine) {
  if (RecordedCalls::refuse(code == SIO_UDP_CONNRESET ? "report unreachable ports"
                            : code == SIO_GET_EXTENSION_FUNCTION_POINTER ? "receive function"
                                                                         : "control"))
    return SOCKET_ERROR;
  if (code == SIO_UDP_CONNRESET) {
    const std::scoped_lock lock(g_mutex);
    BOOL report = TRUE;
    if (in_size == sizeof report) std::memcpy(&report, in, sizeof report);
    g_system.calls.push_back("report unreachable ports: " + std::to_string(report));
  }
  if (code == SIO_GET_EXTENSION_FUNCTION_POINTER && g_system.no_receive_function) {
    WSASetLastError(WSAEINVAL);
    return SOCKET_ERROR;
  }
  static const auto pass = system_function(L"ws2_32.dll", "WSAIoctl", &WSAIoctl);
  return pass(socket, code, in, in_size, out, out_size, returned, overlapped, routine);
}

// The header has these imported, so callers go through the table of imports.
decltype(&recorded_startup) __imp_WSAStartup = recorded_startup;
decltype(&recorded_cleanup) __imp_WSACleanup = recorded_cleanup;
decltype(&recorded_socket) __imp_socket = recorded_socket;
decltype(&recorded_option) __imp_setsockopt = recorded_option;
decltype(&recorded_bind) __imp_bind = recorded_bind;
decltype(&recorded_close) __imp_closesocket = recorded_close;
decltype(&recorded_ioctl) __imp_WSAIoctl = recorded_ioctl;
}

namespace {

class UdpCalls : public testing::Test {
 protected:
  UdpCalls() : client_(lund_udp_open(4, nullptr, 0)) {
    const std::scoped_lock lock(g_mutex);
    g_system.reset();
  }
  ~UdpCalls() override {
    socket_.close();
    lund_udp_close(client_);
    const std::scoped_lock lock(g_mutex);
    g_system.reset();
  }

  void open() {
    std::string error;
    ASSERT_TRUE(socket_.open(0, &error)) << error;
  }
  static lund_rv_endpoint at(const std::string& address) {
    lund_rv_endpoint endpoint;
    EXPECT_EQ(lund_addr_parse(&endpoint, address.c_str(), 9), 0);
    return endpoint;
  }
  lund_rv_endpoint client() const {
    return at("127.0.0.1:" + std::to_string(lund_udp_local_port(client_)));
  }
  static std::uint32_t loopback() { return htonl(INADDR_LOOPBACK); }

  // What was asked since the last time.
  static std::vector<std::string> asked() {
    const std::scoped_lock lock(g_mutex);
    return std::exchange(g_system.calls, {});
  }

  std::string receive(lund_rv_endpoint* from = nullptr) {
    char buffer[64];
    lund_rv_endpoint sender;
    if (lund_udp_wait(&client_, 1, RECEIVE_TIMEOUT_MS) != 1) return "nothing came";
    const int size = lund_udp_recv(client_, buffer, sizeof buffer, &sender);
    if (from != nullptr) *from = sender;
    return size < 0 ? "error" : std::string(buffer, static_cast<std::size_t>(size));
  }
  std::string streamed() {
    EXPECT_TRUE(socket_.send("video", 5, client()));
    return receive();
  }
  // Sends to the socket, by its own address.
  void send_to_socket(const std::string& bytes, const std::string& address) {
    EXPECT_TRUE(socket_.send("?", 1, client()));
    lund_rv_endpoint from;
    EXPECT_EQ(receive(&from), "?");
    EXPECT_EQ(lund_udp_send(client_, at(address + ":" + std::to_string(from.port)), bytes.data(),
                            bytes.size()),
              0);
  }

  CapturedLog log_;
  UdpSocket socket_;
  lund_socket client_;
};

// ---- Opening

class UdpOpening : public UdpCalls {
 protected:
  void refuse(const std::string& step) {
    steps_.let_pass();
    steps_.fail(step, WSAENOBUFS);
  }
  // What is said, and the steps that undo.
  std::vector<std::string> refused_open() {
    std::string error;
    EXPECT_FALSE(socket_.open(0, &error));
    EXPECT_FALSE(socket_.is_open());
    std::vector<std::string> undone = {error};
    for (const std::string& step : steps_.take()) {
      if (step == "closesocket" || step == "WSACleanup") undone.push_back(step);
    }
    return undone;
  }

  RecordedCalls steps_;
};

TEST_F(UdpOpening, TheSocketIsMadeSetAndBoundInThisOrder) {
  open();
  EXPECT_THAT(steps_.take(),
              ElementsAre("WSAStartup 514", "socket 2 2 17",
                          "option 65535/4097 4194304",  // SO_SNDBUF
                          "option 65535/4098 1048576",  // SO_RCVBUF
                          "option 0/19 1",              // IP_PKTINFO
                          "report unreachable ports", "receive function", "bind 0.0.0.0:0"));
  socket_.close();
  EXPECT_THAT(steps_.take(), ElementsAre("closesocket", "WSACleanup"));
}

TEST_F(UdpOpening, TheStepThatFailsIsNamedAndWhatWasDoneIsUndone) {
  refuse("WSAStartup");
  EXPECT_THAT(refused_open(), ElementsAre("WSAStartup failed (WSA error 10055)"));
  refuse("socket");
  EXPECT_THAT(refused_open(), ElementsAre("socket failed (WSA error 10055)", "WSACleanup"));
  refuse("bind");
  EXPECT_THAT(refused_open(),
              ElementsAre("bind failed (WSA error 10055)", "closesocket", "WSACleanup"));
  EXPECT_FALSE(socket_.open(0, nullptr));
  steps_.let_pass();
  open();
}

TEST_F(UdpOpening, WhatIsOnlyWishedForMayBeRefused) {
  for (const char* wish : {"option", "report unreachable ports", "receive function"}) {
    refuse(wish);
    open();
    EXPECT_EQ(streamed(), "video") << wish;
  }
}

// ---- The flow

TEST_F(UdpCalls, AStreamIsMarkedByAFlowOfItsOwn) {
  g_system.qos = true;
  open();
  EXPECT_THAT(asked(), ElementsAre("report unreachable ports: 0", "create 1.0"));
  socket_.qos_set_peer(at("192.0.2.1:5000"));
  EXPECT_THAT(asked(),
              ElementsAre("add 192.0.2.1:5000 type 3 flags 2 to 0", "set 7 operation 2 value 46"));
  EXPECT_EQ(log_.count("QoS: DSCP EF (46) on traffic to the client"), 1);
}

TEST_F(UdpCalls, AnotherPeersFlowReplacesTheFormerWhichIsRemovedFirst) {
  g_system.qos = true;
  open();
  socket_.qos_set_peer(at("192.0.2.1:5000"));
  asked();
  socket_.qos_set_peer(at("192.0.2.2:6000"));
  EXPECT_THAT(asked(), ElementsAre("remove 7 flags 0", "add 192.0.2.2:6000 type 3 flags 2 to 0",
                                   "set 8 operation 2 value 46"));
}

TEST_F(UdpCalls, ClearingRemovesTheFlowOnce) {
  g_system.qos = true;
  open();
  asked();
  socket_.qos_clear();
  EXPECT_THAT(asked(), IsEmpty());
  socket_.qos_set_peer(at("192.0.2.1"));
  asked();
  socket_.qos_clear();
  socket_.qos_clear();
  EXPECT_THAT(asked(), ElementsAre("remove 7 flags 0"));
}

TEST_F(UdpCalls, TheSocketEndsItsFlowAndThenTheService) {
  g_system.qos = true;
  open();
  socket_.qos_set_peer(at("192.0.2.1"));
  asked();
  socket_.close();
  EXPECT_THAT(asked(), ElementsAre("remove 7 flags 0", "close"));
  socket_.qos_set_peer(at("192.0.2.1"));
  socket_.close();
  EXPECT_THAT(asked(), IsEmpty());
}

TEST_F(UdpCalls, WithoutAdministratorRightsTheFlowStaysWithTheMarkOfItsClass) {
  g_system.qos = true;
  g_system.mark_refused = true;
  open();
  socket_.qos_set_peer(at("192.0.2.1"));
  EXPECT_EQ(log_.count("QoS: DSCP CS5 (audio/video class); EF needs administrator rights"), 1);
  asked();
  socket_.qos_clear();
  EXPECT_THAT(asked(), ElementsAre("remove 7 flags 0"));
}

TEST_F(UdpCalls, AFlowThatIsRefusedIsToldWithItsErrorAndTheStreamGoesOn) {
  g_system.qos = true;
  g_system.add_error = ERROR_INVALID_PARAMETER;
  open();
  asked();
  socket_.qos_set_peer(client());
  EXPECT_EQ(log_.count("QoS: QOSAddSocketToFlow failed (87); packets go out unmarked"), 1);
  EXPECT_EQ(asked().size(), 1u);
  EXPECT_EQ(streamed(), "video");
  socket_.close();
  EXPECT_THAT(asked(), ElementsAre("close"));
}

TEST_F(UdpCalls, WithoutTheServiceNothingIsMarkedAndNothingIsSaid) {
  g_system.qos_absent = true;
  open();
  asked();
  socket_.qos_set_peer(client());
  EXPECT_EQ(streamed(), "video");
  socket_.qos_clear();
  socket_.close();
  EXPECT_THAT(asked(), IsEmpty());
  EXPECT_EQ(log_.count("QoS"), 0);
}

TEST_F(UdpCalls, WithoutTheServicesLibraryItIsTheSame) {
  g_system.no_qos_library = true;
  open();
  EXPECT_THAT(asked(), ElementsAre("report unreachable ports: 0"));
  socket_.qos_set_peer(client());
  EXPECT_EQ(streamed(), "video");
  socket_.close();
  EXPECT_THAT(asked(), IsEmpty());
  EXPECT_EQ(log_.count("QoS"), 0);
}

TEST(QosLibrary, IsWholeOrNone) {
  EXPECT_FALSE(load_qos(L"no-such-library.dll"));
  EXPECT_FALSE(load_qos(L"kernel32.dll"));
  EXPECT_TRUE(load_qos(L"qwave.dll"));  // of a PC; Wine has one that refuses every handle
}

// Whether this computer has it or not.
TEST_F(UdpCalls, TheSystemsOwnServiceNeverStopsAStream) {
  open();
  socket_.qos_set_peer(client());
  EXPECT_EQ(streamed(), "video");
  socket_.qos_set_peer(at("127.0.0.2"));
  EXPECT_EQ(streamed(), "video");
}

// ---- The addresses of a datagram

TEST_F(UdpCalls, TheSourceIsSaidInOnePacketInfoMessageForAnyInterface) {
  open();
  ASSERT_TRUE(socket_.send_from("x", 1, client(), loopback()));
  EXPECT_EQ(receive(), "x");
  const std::scoped_lock lock(g_mutex);
  ASSERT_EQ(g_system.control.size(), 24u);
  WSACMSGHDR header;
  IN_PKTINFO info;
  std::memcpy(&header, g_system.control.data(), sizeof header);
  std::memcpy(&info, g_system.control.data() + 16, sizeof info);
  EXPECT_EQ(header.cmsg_len, 24u);
  EXPECT_EQ(header.cmsg_level, 0);
  EXPECT_EQ(header.cmsg_type, 19);
  EXPECT_EQ(info.ipi_addr.s_addr, loopback());
  EXPECT_EQ(info.ipi_ifindex, 0u);
}

TEST_F(UdpCalls, WhereTheSourceIsRefusedTheRoutingTableChooses) {
  open();
  g_system.source_refused = true;
  ASSERT_TRUE(socket_.send_from("x", 1, client(), loopback()));
  EXPECT_EQ(receive(), "x");
}

TEST_F(UdpCalls, APlainSendSaysNoSource) {
  open();
  EXPECT_EQ(streamed(), "video");
  const std::scoped_lock lock(g_mutex);
  EXPECT_TRUE(g_system.control.empty());
}

TEST_F(UdpCalls, WithoutTheReceiveFunctionTheDestinationIsUnknown) {
  g_system.no_receive_function = true;
  open();
  std::uint8_t buffer[8];
  Peer peer;
  send_to_socket("hello", "127.0.0.1");
  EXPECT_EQ(socket_.recv(buffer, sizeof buffer, &peer), 5);
  EXPECT_TRUE(lund_rv_endpoint_equal(peer.address, client()));
  EXPECT_EQ(peer.source_ip, 0u);
  send_to_socket("too long for it", "127.0.0.1");
  EXPECT_EQ(socket_.recv(buffer, sizeof buffer, &peer), 0);
}

TEST_F(UdpCalls, WithoutTheReceiveFunctionCloseEndsABlockedReceiveToo) {
  g_system.no_receive_function = true;
  open();
  std::thread receiver([&] {
    std::uint8_t buffer[8];
    Peer peer;
    EXPECT_EQ(socket_.recv(buffer, sizeof buffer, &peer), -1);
    EXPECT_FALSE(socket_.is_open());
  });
  std::this_thread::yield();
  socket_.close();
  receiver.join();
}

// ---- Errors

TEST(UdpErrorText, NamesTheStepAndTheErrorNumber) {
  const lund_socket holder = lund_udp_open(4, nullptr, 0);
  UdpSocket second;
  std::string error;
  EXPECT_FALSE(second.open(lund_udp_local_port(holder), &error));
  EXPECT_EQ(error, "bind failed (WSA error 10048)");  // WSAEADDRINUSE
  lund_udp_close(holder);
}

TEST(UdpErrorText, ABlockingCallThatWasInterruptedIsKnownByItsNumber) {
  EXPECT_TRUE(UdpSocket::interrupted(10'004));
  EXPECT_FALSE(UdpSocket::interrupted(10'040));
  EXPECT_EQ(UdpSocket::error_text(10'054), "WSA error 10054");
}

}  // namespace
