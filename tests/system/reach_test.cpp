// How a client finds a host that is somewhere else: by the best path that the routers between them
// allow, and by no other.
#include <algorithm>
#include <ostream>

#include "tests/system/reach_support.h"

namespace system_test {
namespace {

struct Situation {
  Nat host;
  std::optional<Nat> client;
  const char* path;          // what the client ends up on
  const char* path_at_host;  // how the host sees it
};

std::string name_of(const Situation& is) {
  return std::string("host ") + nat_name(is.host) + " client " +
         (is.client ? nat_name(*is.client) : "public");
}
void PrintTo(const Situation& is, std::ostream* out) {
  *out << name_of(is);
}

class ReachMatrixTest : public ReachTest, public testing::WithParamInterface<Situation> {};

// A host behind a full cone is reached by a symmetric client too, from a port that the client's
// router has drawn for it alone: the server has told the host of no such address, so the host takes
// it for any other on the internet.
INSTANTIATE_TEST_SUITE_P(
    Routers, ReachMatrixTest,
    testing::Values(Situation{Nat::FULL_CONE, std::nullopt, "P2P", "P2P"},
                    Situation{Nat::FULL_CONE, Nat::FULL_CONE, "P2P", "P2P"},
                    Situation{Nat::FULL_CONE, Nat::PORT_RESTRICTED, "P2P", "P2P"},
                    Situation{Nat::FULL_CONE, Nat::SYMMETRIC, "P2P", "Direct"},
                    Situation{Nat::PORT_RESTRICTED, std::nullopt, "P2P", "P2P"},
                    Situation{Nat::PORT_RESTRICTED, Nat::FULL_CONE, "P2P", "P2P"},
                    Situation{Nat::PORT_RESTRICTED, Nat::PORT_RESTRICTED, "P2P", "P2P"},
                    Situation{Nat::PORT_RESTRICTED, Nat::SYMMETRIC, "Relay", "Relay"},
                    Situation{Nat::SYMMETRIC, std::nullopt, "P2P", "P2P"},
                    Situation{Nat::SYMMETRIC, Nat::FULL_CONE, "P2P", "P2P"},
                    Situation{Nat::SYMMETRIC, Nat::PORT_RESTRICTED, "Relay", "Relay"},
                    Situation{Nat::SYMMETRIC, Nat::SYMMETRIC, "Relay", "Relay"}),
    [](const auto& test) {
      std::string name = name_of(test.param);
      std::replace(name.begin(), name.end(), ' ', '_');
      return name;
    });

TEST_P(ReachMatrixTest, TheStreamTakesTheBestPathThatTheRoutersAllow) {
  build(GetParam().host, GetParam().client);
  start_server();
  start_registered_host();
  pair_at_home();
  connect();
  const std::string path = GetParam().path;
  await_path(path);
  // Punching ends 2.5 s after the look-up: what has not been found by then won't be.
  await_lines(path == "Relay" ? 4 : 1);
  const std::string status = host_status();
  const auto json = end_stream();
  EXPECT_EQ(json["path"]["class"], path) << json["paths"].dump();
  EXPECT_GT(json["paths"].back()["frames"].get<int>(), 5) << json["paths"].dump();
  EXPECT_EQ(json["frames_undecodable"], 0);
  EXPECT_NE(status.find(std::string(", ") + GetParam().path_at_host + " "), std::string::npos)
      << status;
  for (const auto& taken : json["paths"])
    EXPECT_TRUE(taken["class"] == path || taken["class"] == "Relay") << json["paths"].dump();
}

// Every other home is numbered like this one: the host's private address, which the client is told
// of, is the client's own.
TEST_F(ReachTest, TwoSitesWithTheSamePrivateAddressesMeet) {
  lab_->add_internet_host("server", SERVER);
  for (const std::string side : {"host", "client"}) {
    lab_->add_site(side + "-router", Nat::PORT_RESTRICTED,
                   side == "host" ? HOST_PUBLIC : CLIENT_PUBLIC, "192.168.1.1");
    lab_->add_site_host(side, side + "-router", HOST_LAN);
  }
  take_places();
  start_server();
  start_registered_host();
  const RunResult paired = client(
      {"pair", "--host", key_code(), "--relay", link(), "--path", "relay", "--pin", shown_pin()});
  ASSERT_EQ(paired.status, 0) << paired.output;
  connect();
  await_path("P2P");
  await_lines(1);
  const auto json = end_stream();
  EXPECT_EQ(json["path"]["class"], "P2P") << json["paths"].dump();
  EXPECT_GT(json["paths"].back()["frames"].get<int>(), 5) << json["paths"].dump();
}

}  // namespace
}  // namespace system_test
