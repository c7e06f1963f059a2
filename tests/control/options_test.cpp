#include "control/options.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using Args = std::vector<std::string>;

struct Parsed {
  bool ok = false;
  HostOptions options;
  std::string error;
};

Parsed parse(const Args& args) {
  Parsed parsed;
  parsed.ok = parse_host_options(args, &parsed.options, &parsed.error);
  return parsed;
}

std::string error_of(const Args& args) {
  const Parsed parsed = parse(args);
  EXPECT_FALSE(parsed.ok) << "accepted";
  return parsed.error;
}

TEST(Options, NoArgumentsKeepTheDefaults) {
  const Parsed parsed = parse({});
  EXPECT_TRUE(parsed.ok);
  EXPECT_EQ(parsed.error, "");
  const HostOptions& options = parsed.options;
  EXPECT_FALSE(options.machine_mode);
  EXPECT_EQ(options.port, 9876);
  EXPECT_EQ(options.pin, "");
  EXPECT_EQ(options.display, "");
  EXPECT_EQ(options.fps, 60);
  EXPECT_EQ(options.bitrate_kbps, 20'000);
  EXPECT_TRUE(options.hevc);
  EXPECT_EQ(options.encoder, "");
  EXPECT_EQ(options.fec_percent, 15);
  EXPECT_TRUE(options.audio);
  EXPECT_FALSE(options.no_mute_host);
  EXPECT_TRUE(options.mac_keys);
  EXPECT_EQ(options.virtual_display, "auto");
  EXPECT_EQ(options.max_datagram, 1400);
  EXPECT_FALSE(options.console);
  EXPECT_FALSE(options.list_displays);
  EXPECT_FALSE(options.help);
}

TEST(Options, EveryOptionSetsItsField) {
  const Parsed parsed = parse({"--port",
                               "1234",
                               "--pin",
                               "abc123",
                               "--display",
                               "2",
                               "--fps",
                               "144",
                               "--bitrate-kbps",
                               "8000",
                               "--codec",
                               "h264",
                               "--encoder",
                               "hevc_nvenc",
                               "--fec",
                               "30",
                               "--no-audio",
                               "--no-mute-host",
                               "--no-mac-keys",
                               "--max-datagram",
                               "1200",
                               "--virtual-display",
                               "always",
                               "--console",
                               "--list-displays",
                               "--help"});
  ASSERT_TRUE(parsed.ok) << parsed.error;
  const HostOptions& options = parsed.options;
  EXPECT_EQ(options.port, 1234);
  EXPECT_EQ(options.pin, "abc123");
  EXPECT_EQ(options.display, "2");
  EXPECT_EQ(options.fps, 144);
  EXPECT_EQ(options.bitrate_kbps, 8000);
  EXPECT_FALSE(options.hevc);
  EXPECT_EQ(options.encoder, "hevc_nvenc");
  EXPECT_EQ(options.fec_percent, 30);
  EXPECT_FALSE(options.audio);
  EXPECT_TRUE(options.no_mute_host);
  EXPECT_FALSE(options.mac_keys);
  EXPECT_EQ(options.max_datagram, 1200);
  EXPECT_EQ(options.virtual_display, "always");
  EXPECT_TRUE(options.console);
  EXPECT_TRUE(options.list_displays);
  EXPECT_TRUE(options.help);
}

TEST(Options, HelpDoesNotEndTheWalk) {
  for (const char* help : {"--help", "-h", "/?"}) {
    const Parsed parsed = parse({help, "--bogus"});
    EXPECT_FALSE(parsed.ok);
    EXPECT_TRUE(parsed.options.help) << help;
    EXPECT_EQ(parsed.error, "unknown option --bogus");
  }
}

TEST(Options, EveryWrongPortGivesThePortMessage) {
  const char* message = "--port must be 1..65535";
  for (const char* port : {"0", "65536", "80x", "", " ", "-1", "0x50", "99999999999999999999"}) {
    EXPECT_EQ(error_of({"--port", port}), message) << port;
  }
  EXPECT_EQ(error_of({"--port"}), message);
}

TEST(Options, ANumberThatOnlyFitsAfterLosingItsHighBitsIsRefused) {
  EXPECT_EQ(error_of({"--port", "4294977172"}), "--port must be 1..65535");   // 2^32 + 9876
  EXPECT_EQ(error_of({"--port", "-4294957420"}), "--port must be 1..65535");  // 9876 - 2^32
}

TEST(Options, LeadingBlanksAndAPlusSignAreRead) {
  EXPECT_EQ(parse({"--port", "  +80"}).options.port, 80);
  EXPECT_EQ(error_of({"--port", "80 "}), "--port must be 1..65535");
}

TEST(Options, FecZeroIsAcceptedAndFpsZeroIsNot) {
  EXPECT_EQ(parse({"--fec", "0"}).options.fec_percent, 0);
  EXPECT_EQ(error_of({"--fps", "0"}), "--fps must be 1..240");
}

struct Bounds {
  const char* name;
  int low;
  int high;
};

class NumberBounds : public testing::TestWithParam<Bounds> {};

TEST_P(NumberBounds, BothEndsAreAcceptedAndTheirNeighboursRefused) {
  const auto [name, low, high] = GetParam();
  const std::string message =
      std::string(name) + " must be " + std::to_string(low) + ".." + std::to_string(high);
  EXPECT_TRUE(parse({name, std::to_string(low)}).ok);
  EXPECT_TRUE(parse({name, std::to_string(high)}).ok);
  EXPECT_EQ(error_of({name, std::to_string(low - 1)}), message);
  EXPECT_EQ(error_of({name, std::to_string(high + 1)}), message);
}

INSTANTIATE_TEST_SUITE_P(Options, NumberBounds,
                         testing::Values(Bounds{"--port", 1, 65'535}, Bounds{"--fps", 1, 240},
                                         Bounds{"--bitrate-kbps", 500, 500'000},
                                         Bounds{"--fec", 0, 200},
                                         Bounds{"--max-datagram", 106, 1472}),
                         [](const auto& bounds) {
                           std::string name;
                           for (const char* c = bounds.param.name; *c != 0; ++c) {
                             if (*c != '-') name += *c;
                           }
                           return name;
                         });

TEST(Options, CodecNamesAreCaseSensitive) {
  EXPECT_EQ(error_of({"--codec", "H264"}), "--codec must be hevc or h264");
  EXPECT_EQ(error_of({"--codec"}), "missing value for --codec");
  EXPECT_FALSE(parse({"--codec", "avc"}).options.hevc);
  EXPECT_FALSE(parse({"--codec", "h264"}).options.hevc);
  EXPECT_TRUE(parse({"--codec", "avc", "--codec", "h265"}).options.hevc);
  EXPECT_TRUE(parse({"--codec", "avc", "--codec", "hevc"}).options.hevc);
}

TEST(Options, APinOfWrongLengthGetsTheShorterMessageAndABlankTheLonger) {
  const char* length = "--pin must be 1..16 ASCII characters";
  const char* characters = "--pin must be 1..16 printable ASCII characters";
  EXPECT_EQ(error_of({"--pin"}), length);
  EXPECT_EQ(error_of({"--pin", ""}), length);
  EXPECT_EQ(error_of({"--pin", "12345678 01234567"}), length);  // 17 with a blank: length first
  EXPECT_EQ(error_of({"--pin", "12 34"}), characters);
  EXPECT_EQ(error_of({"--pin", "caf\xC3\xA9"}), characters);
  EXPECT_EQ(error_of({"--pin", "\x7F"}), characters);
  EXPECT_EQ(parse({"--pin", "!23456789012345~"}).options.pin, "!23456789012345~");
}

TEST(Options, DisplayNeedsAnArgumentWhichMayBeEmpty) {
  EXPECT_EQ(error_of({"--display"}), "missing value for --display");
  const Parsed parsed = parse({"--display", "1", "--display", ""});
  EXPECT_TRUE(parsed.ok);
  EXPECT_EQ(parsed.options.display, "");
}

TEST(Options, AnEmptyEncoderIsRefusedAndClearsAnEarlierOne) {
  EXPECT_EQ(error_of({"--encoder"}), "missing value for --encoder");
  const Parsed parsed = parse({"--encoder", "h264_amf", "--encoder", ""});
  EXPECT_FALSE(parsed.ok);
  EXPECT_EQ(parsed.error, "missing value for --encoder");
  EXPECT_EQ(parsed.options.encoder, "");
}

TEST(Options, VirtualDisplayTakesThreeWordsOnly) {
  for (const char* word : {"auto", "always", "off"}) {
    EXPECT_EQ(parse({"--virtual-display", word}).options.virtual_display, word);
  }
  EXPECT_EQ(error_of({"--virtual-display", "Off"}),
            "--virtual-display must be auto, always or off");
  EXPECT_EQ(error_of({"--virtual-display"}), "--virtual-display must be auto, always or off");
}

TEST(Options, AFlagMayBeRepeated) {
  const Parsed parsed = parse({"--no-audio", "--no-audio"});
  EXPECT_TRUE(parsed.ok);
  EXPECT_FALSE(parsed.options.audio);
}

TEST(Options, OfMacKeysAndNoMacKeysTheLaterHolds) {
  EXPECT_FALSE(parse({"--mac-keys", "--no-mac-keys"}).options.mac_keys);
  EXPECT_TRUE(parse({"--no-mac-keys", "--mac-keys"}).options.mac_keys);
}

TEST(Options, AValueMayBeginWithADash) {
  const Parsed parsed = parse({"--display", "--fps", "--fps", "30"});
  ASSERT_TRUE(parsed.ok) << parsed.error;
  EXPECT_EQ(parsed.options.display, "--fps");
  EXPECT_EQ(parsed.options.fps, 30);
}

TEST(Options, TheFirstErrorEndsTheWalkAndEarlierOptionsStaySet) {
  const Parsed parsed = parse({"--fps", "30", "--port", "0", "--fec", "50"});
  EXPECT_FALSE(parsed.ok);
  EXPECT_EQ(parsed.error, "--port must be 1..65535");
  EXPECT_EQ(parsed.options.fps, 30);
  EXPECT_EQ(parsed.options.fec_percent, 15);
}

TEST(Options, NamesAreExactAndAnythingElseIsNamedInTheMessage) {
  EXPECT_EQ(error_of({"--Port", "1"}), "unknown option --Port");
  EXPECT_EQ(error_of({"--port=1"}), "unknown option --port=1");
  EXPECT_EQ(error_of({""}), "unknown option ");
}

TEST(Options, TheErrorTextMayBeNull) {
  HostOptions options;
  EXPECT_FALSE(parse_host_options({"--bogus"}, &options, nullptr));
}

// What the system calls the program and a display is its own; all else is the same everywhere.
TEST(Options, TheUsageIsFiveLinesAndDiffersByPlatformInNamesOnly) {
  const std::string usage = HOST_USAGE;
  const std::string lead = "usage: ";
  const std::string program = usage.substr(lead.size(), usage.find(" [--port") - lead.size());
  EXPECT_TRUE(program == "lunderhaze" || program == "Lunderhaze.exe") << program;
  const std::size_t device = usage.find("<index|") + 7;
  const std::string display = usage.substr(device, usage.find('>') - device);
  EXPECT_TRUE(display == "MONITOR" || display == R"(\\.\DISPLAYn)") << display;
  EXPECT_EQ(usage, "usage: " + program + " [--port 9876] [--display <index|" + display +
                       ">] [--fps 60]\n"
                       "                 [--bitrate-kbps 20000] [--codec hevc|h264] [--encoder "
                       "hevc_nvenc|hevc_amf|...]\n"
                       "                 [--fec 15] [--no-audio] [--no-mute-host] "
                       "[--mac-keys | --no-mac-keys] [--max-datagram 1400]\n"
                       "                 [--virtual-display auto|always|off] [--console]\n"
                       "       " +
                       program + " --list-displays\n");
}

}  // namespace
