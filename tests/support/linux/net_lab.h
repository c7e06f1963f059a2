// A network of a test's own, made of Linux network namespaces: an internet (198.51.100.0/24 and
// 203.0.113.0/24, one link), sites behind routers that translate addresses as RFC 4787 classes
// them, and names that resolve. Nothing of it is seen from outside, and nothing stands between two
// labs.
//
// A lab's namespaces carry its process' number. They go with the lab; what a killed run left behind
// goes when the next lab is made. One thread.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "tests/support/child_process.h"

// How a router treats datagrams, by the names of RFC 4787.
enum class Nat {
  // Endpoint-independent mapping and filtering, each port of the outside to the first inner host.
  FULL_CONE,
  // Endpoint-independent mapping that keeps the port; address and port-dependent filtering.
  PORT_RESTRICTED,
  // Address and port-dependent mapping, a port drawn for each destination; filtering likewise.
  // Never one port for a destination in 203.0.113.0/24 and one in 198.51.100.0/24.
  SYMMETRIC,
};
const char* nat_name(Nat kind);

class NetLab {
 public:
  // Why there can be no lab on this computer (not root, programs missing, kernel without); empty
  // when there can be one.
  static const std::string& missing();

  NetLab();
  ~NetLab();
  NetLab(const NetLab&) = delete;
  NetLab& operator=(const NetLab&) = delete;

  // Building. A node is a namespace, named by a word. Addresses are dotted; each network is a /24.
  // A failed command fails the test, with what it said.
  void add_internet_host(const std::string& node, const std::string& address);  // device "eth0"
  // The router `site`, public at `public_address`, and `lan` (its own address, "192.168.1.1").
  void add_site(const std::string& site, Nat kind, const std::string& public_address,
                const std::string& lan);
  // A node on a site's LAN. It gets there by device `device`; a default route goes by the first.
  void add_site_host(const std::string& node, const std::string& site, const std::string& address);
  void join_lan(const std::string& node, const std::string& site, const std::string& device,
                const std::string& address);

  // Changing. Each returns when it is done.
  void set_link(const std::string& node, const std::string& device, bool up);
  // Another address in place of the ones there, with a default route by the same router as before.
  void change_address(const std::string& node, const std::string& device,
                      const std::string& address);
  // The router forgets what it has mapped: the next datagram of a SYMMETRIC one gets another port.
  void forget_mappings(const std::string& site);
  void change_public_address(const std::string& site, const std::string& address);
  // Nothing passes between this node (or through this router) and the address.
  void block(const std::string& node, const std::string& address);
  void unblock(const std::string& node);  // all of them
  // Datagrams to a port from outside that the router has turned away because nothing asked for
  // them.
  int turned_away(const std::string& site) const;

  // Names. The node answers for all nodes; a name without an address doesn't exist. Answers live
  // for 0 seconds.
  void serve_names(const std::string& node);
  void set_name(const std::string& name, const std::string& address);

  // Running. The command line that runs a program inside a node.
  std::vector<std::string> inside(const std::string& node,
                                  const std::vector<std::string>& arguments) const;
  // Runs it to its end there; fails the test unless its exit status is 0. What it said.
  std::string run(const std::string& node, const std::vector<std::string>& arguments) const;
  // Calls this on a thread that lives inside the node; what it opens stays there.
  void call(const std::string& node, const std::function<void()>& function) const;
  std::string namespace_of(const std::string& node) const { return prefix_ + node; }

  // The names that a lab of this process number uses begin so.
  static std::string prefix_of(pid_t pid);

 private:
  struct Site {
    Nat kind;
    std::string lan;
    std::string first_host;
  };
  struct Gateway {
    std::string device;
    std::string address;
  };

  void add_node(const std::string& node);
  void command(const std::vector<std::string>& arguments) const;
  // A cable from the node's device to the bridge of another node.
  void plug(const std::string& node, const std::string& device, const std::string& bridge_node,
            const std::string& address);
  void add_routes(const std::string& node, const std::string& device) const;
  void set_parameter(const std::string& node, const std::string& name, const char* value) const;
  void replace_table(const std::string& node, const std::string& table,
                     const std::string& rules) const;
  void translate(const std::string& site) const;
  void write_names() const;

  std::string prefix_;
  std::string directory_;
  std::vector<std::string> nodes_;
  std::map<std::string, Site> sites_;
  std::map<std::string, Gateway> gateways_;          // of a node on a site's LAN
  std::map<std::string, std::string> public_hosts_;  // node, address
  std::map<std::string, std::vector<std::string>> blocked_;
  std::map<std::string, std::string> names_;
  std::unique_ptr<ChildProcess> name_server_;
  int cables_ = 0;
};
