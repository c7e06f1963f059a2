// The one copy of the usage text; what a platform calls the program and a display is put in by that
// platform's file.
#pragma once

#define LUND_HOST_USAGE(program, device)                                                    \
  "usage: " program " [--port 9876] [--display <index|" device                              \
  ">] [--fps 60]\n"                                                                         \
  "                 [--bitrate-kbps 20000] [--codec hevc|h264] [--encoder "                 \
  "hevc_nvenc|hevc_amf|...]\n"                                                              \
  "                 [--fec 15] [--no-audio] [--no-mute-host] [--mac-keys | --no-mac-keys] " \
  "[--max-datagram 1400]\n"                                                                 \
  "                 [--virtual-display auto|always|off] [--console]\n"                      \
  "       " program " --list-displays\n"
