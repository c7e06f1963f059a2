// What the doctor makes of what it has found out: values in, words for a person out. Pure.
//
// A problem keeps clients from being served, or is the failure of something that somebody has set
// up. A warning: they are served, but with less than they could be, or it can't be told.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "capture/display.h"
#include "control/firewall.h"
#include "control/keystore_inspect.h"
#include "control/relay_list.h"

enum class Verdict { Ok, Warning, Problem };

struct Finding {
  std::string check;
  Verdict verdict = Verdict::Ok;
  std::string text;
  std::string advice;  // what to do; may be empty
};
using Findings = std::vector<Finding>;

struct DisplayFacts {
  std::string server;    // what shows the displays, as a person calls it: "the X server :0"
  std::string obstacle;  // why none can be captured; empty when one can be
  std::string advice;    // what to do about that
  std::vector<DisplayInfo> displays;
};
Finding check_display(const DisplayFacts& facts);

struct CaptureFacts {
  std::string device;
  std::string backend;
  std::string failure;  // empty when a picture was taken
  std::int32_t width = 0;
  std::int32_t height = 0;
  std::uint64_t time_us = 0;
  std::uint64_t coloured_pixels = 0;  // that aren't black
};
Finding check_capture(const CaptureFacts& facts);

// Of a platform that can capture on the graphics card.
struct GraphicsFacts {
  std::string device;
  std::string encoder;  // the card's; empty when it doesn't capture this display and encode it
  bool hevc = false;
};
Finding check_graphics(const GraphicsFacts& facts);

// The encoder that needs no hardware.
struct EncoderFacts {
  std::string name;  // empty when it doesn't open, or gives no frames
  bool hevc = false;
  std::uint64_t frame_us = 0;  // a 1080p frame, with its conversion: the median of some
  std::uint64_t best_us = 0;   // the fastest of them, which other programs disturb least
  bool spare = false;          // the graphics card's is used
};
Finding check_encoder(const EncoderFacts& facts);

struct InputFacts {
  bool works = false;
  std::string facility;  // "XTest"
  std::string usual_cause;
};
Finding check_input(const InputFacts& facts);

struct PortHolder {
  std::uint64_t process = 0;  // 0 when it can't be told
  std::string program;        // empty likewise
  std::string user;           // empty likewise
};
struct PortFacts {
  std::uint16_t port = 0;
  std::string failure;                     // of opening it; empty when it is free, or the host's
  std::optional<PortHolder> holder;        // of one that can't be opened
  bool silent_host = false;                // this user's host runs and doesn't answer
  std::optional<std::uint16_t> host_port;  // where this user's host listens, if it runs
};
Finding check_port(const PortFacts& facts);

Finding check_firewall(const FirewallStatus& status);

struct RelayFacts {
  std::string name;
  RelayCheck check;
};
Findings check_relay_servers(const std::vector<RelayFacts>& relays);

struct SoundFacts {
  std::string unreachable;  // why there is no sound server; empty when there is one
  std::string advice;       // what to do about that
  std::string output;       // the default one; empty without one
  std::string facility;     // "PulseAudio"
  std::uint32_t error = 0;  // of the recording
  bool delivers = false;    // what it plays came, silence or not, or would come
  bool muted = false;
  bool can_be_muted = false;  // so that the recording goes on
};
Finding check_sound(const SoundFacts& facts);

struct ClipboardFacts {
  bool exists = false;
  bool answers = false;  // the program that owns what was copied, if there is one
  bool shared = true;    // with clients, by the user's own choice
};
Finding check_clipboard(const ClipboardFacts& facts);

// What to do about a store, in the platform's words.
struct StoreAdvice {
  std::string no_directory;  // without a place for one
  std::string exposed;       // others get at it
  std::string identity;      // it is damaged
};

struct StoreFacts {
  enum class Directory { None, Missing, NoDirectory, Exists };
  std::string path;
  Directory directory = Directory::None;
  bool writable = false;             // or, of a missing one, can be made
  bool foreign = false;              // another user's
  std::vector<std::string> exposed;  // what others than its owner can read or write, by name
  std::optional<std::uint64_t> room_bytes;
  std::vector<keystore::StoredFile> files;
  StoreAdvice advice;
};
Findings check_store(const StoreFacts& facts);

// A check that could not be made, since another has failed.
Finding not_tried(const std::string& check, const std::string& why);
// A check that has come to no end. `what`: "the X server".
Finding no_result(const std::string& check, const std::string& what, std::uint64_t after_s);

std::string findings_text(const Findings& findings);  // with a summary at the end
std::string findings_json(const Findings& findings, std::uint16_t port);
bool has_problem(const Findings& findings);
