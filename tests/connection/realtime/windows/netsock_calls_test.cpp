// What the sockets and the list of this computer's addresses ask of the system, and how they take a
// refusal.
#include "connection/netsock.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <deque>
#include <mutex>
#include <string>
#include <vector>

#include "connection/windows/adapter_list.h"
#include "tests/support/windows/recorded_calls.h"
// After the socket headers.
#include <mswsock.h>

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

// What the next calls for the list of adapters say, in place of giving it; and the list.
struct Listing {
  std::deque<ULONG> results;
  IP_ADAPTER_ADDRESSES* adapters = nullptr;
};
Listing* g_listing = nullptr;  // null: the system's own

std::mutex g_startups_mutex;
std::vector<WORD> g_startups;  // the versions asked for, since the program began

template <class Function>
Function* socket_function(const char* name, Function* type) {
  return system_function(L"ws2_32.dll", name, type);
}
bool refuses(const std::string& call) {
  return RecordedCalls::refuse(call);
}

std::string text(const sockaddr* address, int size) {
  lund_rv_endpoint endpoint;
  lund_addr_from_sockaddr(&endpoint, address, static_cast<std::size_t>(size));
  char out[LUND_ADDR_TEXT];
  lund_addr_format(out, sizeof out, endpoint);
  return out;
}

int WSAAPI startup(WORD version, WSADATA* data) {
  static auto* const pass = socket_function("WSAStartup", &startup);
  const std::scoped_lock lock(g_startups_mutex);
  g_startups.push_back(version);
  return pass(version, data);
}

SOCKET WSAAPI make_socket(int family, int type, int protocol) {
  static auto* const pass = socket_function("socket", &make_socket);
  return refuses("socket " + std::to_string(family) + " " + std::to_string(type) + " " +
                 std::to_string(protocol))
             ? INVALID_SOCKET
             : pass(family, type, protocol);
}

std::string option_text(int level, int option) {
  if (level == SOL_SOCKET && option == SO_RCVBUF) return "receive buffer ";
  if (level == SOL_SOCKET && option == SO_SNDBUF) return "send buffer ";
  if (level == IPPROTO_IPV6 && option == IPV6_V6ONLY) return "IPv6 only ";
  return "option " + std::to_string(option) + " of " + std::to_string(level) + " ";
}

int WSAAPI set_option(SOCKET socket, int level, int option, const char* bytes, int size) {
  static auto* const pass = socket_function("setsockopt", &set_option);
  int value = -1;
  if (size == sizeof value) std::memcpy(&value, bytes, sizeof value);
  return refuses(option_text(level, option) + std::to_string(value))
             ? SOCKET_ERROR
             : pass(socket, level, option, bytes, size);
}

int WSAAPI bind_socket(SOCKET socket, const sockaddr* name, int size) {
  static auto* const pass = socket_function("bind", &bind_socket);
  return refuses("bind " + text(name, size)) ? SOCKET_ERROR : pass(socket, name, size);
}

int WSAAPI control_socket(SOCKET socket, long command, u_long* value) {
  static auto* const pass = socket_function("ioctlsocket", &control_socket);
  const bool blocking = command == static_cast<long>(FIONBIO);
  return refuses((blocking ? "non-blocking " : "control ") + std::to_string(*value))
             ? SOCKET_ERROR
             : pass(socket, command, value);
}

int WSAAPI control(SOCKET socket, DWORD code, void* in, DWORD in_size, void* out, DWORD out_size,
                   DWORD* returned, WSAOVERLAPPED* overlapped,
                   LPWSAOVERLAPPED_COMPLETION_ROUTINE routine) {
  static auto* const pass = socket_function("WSAIoctl", &control);
  BOOL report = TRUE;
  if (code == SIO_UDP_CONNRESET && in_size == sizeof report) std::memcpy(&report, in, in_size);
  return refuses("report unreachable ports " + std::to_string(report))
             ? SOCKET_ERROR
             : pass(socket, code, in, in_size, out, out_size, returned, overlapped, routine);
}

int WSAAPI close_socket(SOCKET socket) {
  static auto* const pass = socket_function("closesocket", &close_socket);
  refuses("close");
  return pass(socket);
}

// Refused, it takes less than it was given.
int WSAAPI send_to(SOCKET socket, const char* bytes, int size, int flags, const sockaddr* to,
                   int to_size) {
  static auto* const pass = socket_function("sendto", &send_to);
  return refuses("send " + std::to_string(size) + " flags " + std::to_string(flags))
             ? size - 1
             : pass(socket, bytes, size, flags, to, to_size);
}

}  // namespace

extern "C" {
// The places through which a call into a DLL goes: the linker takes these ahead of those of the
// import library.
decltype(&startup) __imp_WSAStartup = startup;
decltype(&make_socket) __imp_socket = make_socket;
decltype(&set_option) __imp_setsockopt = set_option;
decltype(&bind_socket) __imp_bind = bind_socket;
decltype(&control_socket) __imp_ioctlsocket = control_socket;
decltype(&control) __imp_WSAIoctl = control;
decltype(&close_socket) __imp_closesocket = close_socket;
decltype(&send_to) __imp_sendto = send_to;

// Callers have this one by its name.
ULONG WINAPI GetAdaptersAddresses(ULONG family, ULONG flags, void* reserved,
                                  IP_ADAPTER_ADDRESSES* out, ULONG* bytes) {
  static auto* const pass =
      system_function(L"iphlpapi.dll", "GetAdaptersAddresses", &GetAdaptersAddresses);
  if (g_listing == nullptr) return pass(family, flags, reserved, out, bytes);
  refuses("list family " + std::to_string(family) + " flags " + std::to_string(flags) + " into " +
          std::to_string(*bytes));
  if (!g_listing->results.empty()) {
    const ULONG result = g_listing->results.front();
    g_listing->results.pop_front();
    if (result == ERROR_BUFFER_OVERFLOW) *bytes += 1'000;
    return result;
  }
  *out = *g_listing->adapters;
  return ERROR_SUCCESS;
}
}

namespace {

class NetsockCalls : public testing::Test {
 protected:
  NetsockCalls() { g_listing = &listing_; }
  ~NetsockCalls() override { g_listing = nullptr; }

  void refuse(const std::string& step) {
    calls_.let_pass();
    calls_.fail(step, WSAENOBUFS);
  }
  std::ptrdiff_t closings() { return std::ranges::count(calls_.take(), "close"); }

  RecordedCalls calls_;
  Listing listing_;
};

// ---- Sockets

TEST_F(NetsockCalls, WinsockIsStartedOnceInVersionTwoPointTwo) {
  EXPECT_EQ(lund_net_init(), 0);
  EXPECT_EQ(lund_net_init(), 0);
  const std::scoped_lock lock(g_startups_mutex);
  EXPECT_THAT(g_startups, ElementsAre(0x0202));
}

TEST_F(NetsockCalls, ASocketIsMadeBoundAndKeptFromBlockingAndFromOthersEnds) {
  lund_udp_close(lund_udp_open(4, nullptr, 0));
  EXPECT_THAT(calls_.take(), ElementsAre("socket 2 2 17", "receive buffer 4194304",
                                         "send buffer 4194304", "bind 0.0.0.0:0", "non-blocking 1",
                                         "report unreachable ports 0", "close"));
}

TEST_F(NetsockCalls, OneOfFamilySixTakesBothFamilies) {
  lund_udp_close(lund_udp_open(6, nullptr, 0));
  EXPECT_THAT(calls_.take(), ElementsAre("socket 23 2 17", "IPv6 only 0", "receive buffer 4194304",
                                         "send buffer 4194304", "bind [::]:0", "non-blocking 1",
                                         "report unreachable ports 0", "close"));
}

TEST_F(NetsockCalls, AnyOtherFamilyIsFour) {
  lund_udp_close(lund_udp_open(0, nullptr, 0));
  EXPECT_THAT(calls_.take(), testing::Contains("socket 2 2 17"));
}

TEST_F(NetsockCalls, AnAddressIsBoundAsItIsAndMappedOnASocketOfFamilySix) {
  lund_rv_endpoint address;
  ASSERT_EQ(lund_addr_parse_ip(&address, "127.0.0.1"), 0);
  refuse("bind");  // that no port is taken
  lund_udp_open(4, &address, 4'321);
  EXPECT_THAT(calls_.take(), testing::Contains("bind 127.0.0.1:4321"));
  lund_udp_open(6, &address, 4'321);
  EXPECT_THAT(calls_.take(), testing::Contains("bind 127.0.0.1:4321"));
}

TEST_F(NetsockCalls, AFailureAtAnyStepClosesTheSocketOnce) {
  for (const char* step : {"IPv6 only", "receive buffer", "send buffer", "bind", "non-blocking",
                           "report unreachable ports"}) {
    refuse(step);
    EXPECT_EQ(lund_udp_open(6, nullptr, 0), LUND_NO_SOCKET) << step;
    EXPECT_EQ(closings(), 1) << step;
  }
  refuse("socket");
  EXPECT_EQ(lund_udp_open(6, nullptr, 0), LUND_NO_SOCKET);
  EXPECT_EQ(closings(), 0);
}

TEST_F(NetsockCalls, ADatagramThatWentOutInPartIsNone) {
  const lund_socket socket = lund_udp_open(4, nullptr, 0);
  lund_rv_endpoint to;
  ASSERT_EQ(lund_addr_parse(&to, "127.0.0.1:9", 0), 0);
  calls_.take();
  EXPECT_EQ(lund_udp_send(socket, to, "hello", 5), 0);
  refuse("send");
  EXPECT_EQ(lund_udp_send(socket, to, "hello", 5), -1);
  EXPECT_THAT(calls_.take(), ElementsAre("send 5 flags 0", "send 5 flags 0"));
  lund_udp_close(socket);
}

// ---- Addresses

// Adapters as the system lists them, each with its addresses.
class Adapters {
 public:
  void add(IF_OPER_STATUS status, DWORD type, const std::vector<std::string>& addresses) {
    IP_ADAPTER_ADDRESSES& adapter = adapters_.emplace_back();
    adapter.OperStatus = status;
    adapter.IfType = type;
    IP_ADAPTER_UNICAST_ADDRESS** end = &adapter.FirstUnicastAddress;
    for (const std::string& address : addresses) {
      *end = &entry(address);
      end = &(*end)->Next;
    }
    if (adapters_.size() > 1) adapters_[adapters_.size() - 2].Next = &adapter;
  }
  IP_ADAPTER_ADDRESSES* first() { return &adapters_.front(); }

 private:
  IP_ADAPTER_UNICAST_ADDRESS& entry(const std::string& address) {
    lund_rv_endpoint endpoint;
    EXPECT_EQ(lund_addr_parse_ip(&endpoint, address), 0) << address;
    sockaddr_storage& name = names_.emplace_back();
    IP_ADAPTER_UNICAST_ADDRESS& made = entries_.emplace_back();
    made.Address.lpSockaddr = reinterpret_cast<sockaddr*>(&name);
    made.Address.iSockaddrLength =
        static_cast<INT>(lund_addr_to_sockaddr(endpoint, &name, sizeof name, false));
    return made;
  }

  std::deque<IP_ADAPTER_ADDRESSES> adapters_;
  std::deque<IP_ADAPTER_UNICAST_ADDRESS> entries_;
  std::deque<sockaddr_storage> names_;
};

std::vector<std::string> local_endpoints(int most = 16) {
  lund_rv_endpoint found[32];
  const int count = lund_net_local_endpoints(found, most, 4'321);
  std::vector<std::string> texts;
  for (int i = 0; i < count; ++i) {
    char one[LUND_ADDR_TEXT];
    lund_addr_format(one, sizeof one, found[i]);
    texts.emplace_back(one);
  }
  return texts;
}

TEST_F(NetsockCalls, AddressesAreThoseOfAdaptersThatAreUpPrivateOnesFirstAndEachOnce) {
  Adapters adapters;
  adapters.add(IfOperStatusUp, IF_TYPE_ETHERNET_CSMACD, {"203.0.113.5", "192.168.1.2"});
  adapters.add(IfOperStatusDown, IF_TYPE_ETHERNET_CSMACD, {"10.0.0.9"});
  adapters.add(IfOperStatusUp, IF_TYPE_SOFTWARE_LOOPBACK, {"10.9.9.9"});
  adapters.add(IfOperStatusUp, IF_TYPE_IEEE80211,
               {"0.1.2.3", "127.0.0.5", "169.254.1.1", "192.168.1.2", "10.0.0.3"});
  listing_.adapters = adapters.first();
  EXPECT_THAT(local_endpoints(),
              ElementsAre("192.168.1.2:4321", "10.0.0.3:4321", "203.0.113.5:4321"));
  EXPECT_THAT(calls_.take(), ElementsAre("list family 2 flags 14 into 15000"));
  EXPECT_THAT(local_endpoints(2), ElementsAre("192.168.1.2:4321", "10.0.0.3:4321"));
}

TEST_F(NetsockCalls, OfManyAddressesTheFirstSixteenCount) {
  Adapters adapters;
  for (int i = 1; i <= 20; ++i)
    adapters.add(IfOperStatusUp, IF_TYPE_PPP, {"10.0.0." + std::to_string(i)});
  listing_.adapters = adapters.first();
  const std::vector<std::string> found = local_endpoints(32);
  ASSERT_EQ(found.size(), 16u);
  EXPECT_EQ(found.back(), "10.0.0.16:4321");
}

TEST_F(NetsockCalls, AListThatGrowsIsAskedForThreeTimesAtMost) {
  Adapters adapters;
  adapters.add(IfOperStatusUp, IF_TYPE_PPP, {"10.0.0.1"});
  listing_.adapters = adapters.first();
  listing_.results = {ERROR_BUFFER_OVERFLOW, ERROR_BUFFER_OVERFLOW};
  EXPECT_THAT(local_endpoints(), ElementsAre("10.0.0.1:4321"));
  EXPECT_THAT(calls_.take(),
              ElementsAre("list family 2 flags 14 into 15000", "list family 2 flags 14 into 16000",
                          "list family 2 flags 14 into 17000"));
  listing_.results = {ERROR_BUFFER_OVERFLOW, ERROR_BUFFER_OVERFLOW, ERROR_BUFFER_OVERFLOW};
  EXPECT_THAT(local_endpoints(), IsEmpty());
  EXPECT_EQ(calls_.take().size(), 3u);
}

TEST_F(NetsockCalls, AListThatIsRefusedIsNotAskedForAgain) {
  listing_.results = {ERROR_NO_DATA};
  EXPECT_THAT(local_endpoints(), IsEmpty());
  EXPECT_EQ(calls_.take().size(), 1u);
}

}  // namespace
