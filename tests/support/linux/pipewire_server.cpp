#include "tests/support/linux/pipewire_server.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <array>
#include <thread>

namespace {

constexpr std::chrono::seconds START_DEADLINE{20};
// Of what is loaded by the PulseAudio protocol; a sound card's sink lacks the property.
const std::string DEAF_MONITOR = "sink_properties=monitor.channel-volumes=false";

constexpr const char* LIBRARIES = R"(
context.spa-libs = {
  audio.convert.* = audioconvert/libspa-audioconvert
  support.* = support/libspa-support
}
)";

constexpr const char* DAEMON = R"(
context.properties = { core.daemon = true core.name = pipewire-0 support.dbus = false }
context.modules = [
  { name = libpipewire-module-rt args = { nice.level = -11 } flags = [ ifexists nofail ] }
  { name = libpipewire-module-protocol-native }
  { name = libpipewire-module-metadata }
  { name = libpipewire-module-spa-node-factory }
  { name = libpipewire-module-client-node }
  { name = libpipewire-module-client-device }
  { name = libpipewire-module-access }
  { name = libpipewire-module-adapter }
  { name = libpipewire-module-link-factory }
  { name = libpipewire-module-session-manager }
]
context.objects = [
  { factory = adapter
    args = { factory.name = support.null-audio-sink node.name = out media.class = Audio/Sink
             audio.rate = 48000 audio.position = "FL,FR" } }
  # Gives time to sinks that have none of their own: those that play into pipes.
  { factory = spa-node-factory
    args = { factory.name = support.node.driver node.name = Dummy-Driver
             node.group = pipewire.dummy priority.driver = 20000 } }
]
)";

constexpr const char* PROTOCOL_SERVER = R"(
context.properties = { support.dbus = false }
context.modules = [
  { name = libpipewire-module-rt args = { nice.level = -11 } flags = [ ifexists nofail ] }
  { name = libpipewire-module-protocol-native }
  { name = libpipewire-module-client-node }
  { name = libpipewire-module-adapter }
  { name = libpipewire-module-metadata }
  { name = libpipewire-module-protocol-pulse }
]
)";

// Of WirePlumber 0.4 what links streams and follows the default sink, and nothing that looks for
// devices. From 0.5 on that is a profile of its own configuration.
constexpr const char* SESSION_MANAGER_0_4 = R"(
context.properties = { support.dbus = false wireplumber.script-engine = lua-scripting }
context.modules = [
  { name = libpipewire-module-protocol-native }
  { name = libpipewire-module-client-node }
  { name = libpipewire-module-client-device }
  { name = libpipewire-module-adapter }
  { name = libpipewire-module-metadata }
  { name = libpipewire-module-session-manager }
]
wireplumber.components = [
  { name = libwireplumber-module-lua-scripting, type = module }
  { name = test.lua, type = config/lua }
]
)";
constexpr const char* SESSION_POLICY_0_4 = R"(
components = {}
local function module(name, arguments)
  components[name] = { "libwireplumber-module-" .. name, type = "module", args = arguments }
end
local function script(name, arguments)
  components[name] = { name, type = "script/lua", args = arguments }
end
module("metadata")
script("access/access-default.lua", { rules = {} })
module("default-nodes", { ["use-persistent-storage"] = false })
for _, name in ipairs { "si-node", "si-audio-adapter", "si-standard-link", "si-audio-endpoint",
                        "default-nodes-api", "mixer-api" } do
  module(name)
end
script("create-item.lua", {})
script("policy-node.lua", { move = true, follow = true })
)";

// A mute of a sink that nothing has played to or recorded yet takes effect at its first use
// (PipeWire 1.4.2). Others are muted at once, also those that idle.
void use_once(const PipewireServer& server, const std::string& sink) {
  Ear(server, sink).listen(std::chrono::milliseconds(10));
}

}  // namespace

// ---- PipewireServer

PipewireServer::PipewireServer() : AnySoundServer(DEAF_MONITOR) {
  write_file(directory_ / "daemon.conf", std::string(LIBRARIES) + DAEMON);
  write_file(directory_ / "protocol.conf", std::string(LIBRARIES) + PROTOCOL_SERVER +
                                               "pulse.properties = { server.address = [ \"" +
                                               address() + "\" ] }\n");
  daemon_ = start({"pipewire", "-c", directory_ / "daemon.conf"});
  const std::filesystem::path socket = directory_ / "pipewire-0";
  const auto until = std::chrono::steady_clock::now() + START_DEADLINE;
  // Its clients don't wait for it.
  while (!accepts_clients(socket) && std::chrono::steady_clock::now() < until)
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  session_manager_ = start(session_manager());
  if (!wait_for_default_sink()) return;
  restart_protocol_server();
  if (running()) use_once(*this, "out");
}

std::unique_ptr<ChildProcess> PipewireServer::start(std::vector<std::string> command) const {
  command.insert(command.begin(), {"setpriv", "--pdeathsig", "KILL"});
  const std::string home = directory_.path();
  return std::make_unique<ChildProcess>(
      std::move(command),
      std::map<std::string, std::string>{{"HOME", home},
                                         {"XDG_RUNTIME_DIR", home},
                                         {"XDG_CONFIG_HOME", home},
                                         {"XDG_STATE_HOME", home},
                                         {"PIPEWIRE_RUNTIME_DIR", ""},
                                         {"PIPEWIRE_REMOTE", ""},
                                         {"PULSE_RUNTIME_PATH", ""},
                                         {"DBUS_SESSION_BUS_ADDRESS", "disabled:"},
                                         {"DBUS_SYSTEM_BUS_ADDRESS", "disabled:"},
                                         {"DISPLAY", ""}});
}

std::vector<std::string> PipewireServer::session_manager() const {
  if (run_program({"wireplumber", "--version"}).output.find("libwireplumber 0.4.") ==
      std::string::npos)
    return {"wireplumber", "--profile", "policy"};
  const std::filesystem::path policy = directory_ / "test.lua.d";
  std::filesystem::create_directory(policy);
  write_file(policy / "50-test.lua", SESSION_POLICY_0_4);
  write_file(directory_ / "session.conf", std::string(LIBRARIES) + SESSION_MANAGER_0_4);
  return {"env", "WIREPLUMBER_CONFIG_DIR=" + directory_.path().string(), "wireplumber", "-c",
          "session.conf"};
}

// A program of PipeWire's own.
RunResult PipewireServer::tool(const std::vector<std::string>& command) const {
  return run_program(command, {{"XDG_RUNTIME_DIR", directory_.path()},
                               {"PIPEWIRE_RUNTIME_DIR", ""},
                               {"PIPEWIRE_REMOTE", ""},
                               {"LC_ALL", "C"}});
}

// The session manager's choice, which it makes once the sink is ready to be linked.
bool PipewireServer::wait_for_default_sink() const {
  const auto until = std::chrono::steady_clock::now() + START_DEADLINE;
  std::string output;
  do {
    output = tool({"pw-metadata", "0", "default.audio.sink"}).output;
    if (output.find("\"out\"") != std::string::npos) return true;
    session_manager_->wait_for_output({"\0", 1}, std::chrono::milliseconds(5));
  } while (std::chrono::steady_clock::now() < until);
  daemon_->wait_for_output({"\0", 1}, std::chrono::milliseconds(5));
  ADD_FAILURE() << "no default sink: " << output << daemon_->output() << session_manager_->output();
  return false;
}

bool PipewireServer::pull(const std::string& sink) const {
  const std::string list = pactl({"list", "sinks"}).output;
  const std::string label = "object.id = \"";
  const std::size_t id = list.find(label, list.find("Name: " + sink + "\n"));
  EXPECT_NE(id, std::string::npos) << "no sink " << sink << " in:\n" << list;
  if (id == std::string::npos) return false;
  const std::size_t number = id + label.size();
  return tool({"pw-cli", "destroy", list.substr(number, list.find('"', number) - number)}).status ==
         0;
}

void PipewireServer::kill_protocol_server() {
  protocol_server_->signal(SIGKILL);
  protocol_server_->wait(std::chrono::seconds(5));
  running_ = false;
}

void PipewireServer::restart_protocol_server() {
  protocol_server_ = start({"pipewire", "-c", directory_ / "protocol.conf"});
  wait_for_clients(*protocol_server_);
}

bool PipewireServer::add_sink(const std::string& name, int rate, int channels) const {
  if (!AnySoundServer::add_sink(name, rate, channels)) return false;
  use_once(*this, name);
  return true;
}

bool PipewireServer::add_sink_with_obedient_monitor(const std::string& name) const {
  return pactl({"load-module", "module-null-sink", "sink_name=" + name}).status == 0;
}

bool PipewireServer::add_speakers(const std::string& name) const {
  return pactl({"load-module", "module-pipe-sink", "sink_name=" + name,
                "file=" + pipe_of(name).string(), "format=float32le", "rate=48000", "channels=2"})
             .status == 0;
}

// ---- Speakers

Speakers::Speakers(const PipewireServer& server, const std::string& name)
    : pipe_(open(server.pipe_of(name).c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC)) {
  EXPECT_GE(pipe_, 0) << "no pipe of " << name;
}

Speakers::~Speakers() {
  if (pipe_ >= 0) close(pipe_);
}

bool Speakers::wait_for_more() const {
  constexpr int DEADLINE_MS = 5'000;
  pollfd ready{pipe_, POLLIN, 0};
  return poll(&ready, 1, DEADLINE_MS) > 0;
}

std::vector<float> Speakers::listen(std::chrono::milliseconds duration) {
  constexpr std::size_t FRAME = 2;
  std::array<float, 4'096> samples;
  // The server writes whole frames.
  while (read(pipe_, samples.data(), sizeof samples) > 0) {
  }
  std::vector<float> left;
  const std::size_t count = static_cast<std::size_t>(RATE / 1000 * duration.count());
  while (left.size() < count) {
    const bool more = wait_for_more();
    const ssize_t bytes = more ? read(pipe_, samples.data(), sizeof samples) : 0;
    EXPECT_GT(bytes, 0) << "the speakers get nothing";
    if (bytes <= 0) break;
    for (std::size_t i = 0; i < static_cast<std::size_t>(bytes) / sizeof(float); i += FRAME)
      left.push_back(samples[i]);
  }
  left.resize(count);
  return left;
}
