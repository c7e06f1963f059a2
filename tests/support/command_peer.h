// Ends of a command channel that don't keep to the rules. One thread.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>

// A sender, connected to the host on a store.
class CommandPeer {
 public:
  explicit CommandPeer(const std::filesystem::path& directory);
  ~CommandPeer();
  CommandPeer(const CommandPeer&) = delete;
  CommandPeer& operator=(const CommandPeer&) = delete;

  bool write(const std::string& bytes) const;  // as they are; whether all have gone
  std::string read() const;                    // everything until the host ends the connection

 private:
  std::intptr_t peer_;
};

// Somebody in a host's place.
class CommandImpostor {
 public:
  explicit CommandImpostor(const std::filesystem::path& directory);
  ~CommandImpostor();
  CommandImpostor(const CommandImpostor&) = delete;
  CommandImpostor& operator=(const CommandImpostor&) = delete;

  // Waits for a sender and some of its request, sends this, and breaks off.
  bool break_off_after(const std::string& bytes);

 private:
  std::intptr_t listener_;
};
