// One example of a document: bytes that the real code made, told field by field, or named values of
// a computation. Building one is a test in itself: what a field is said to hold must stand there.
#pragma once

#include <cstdint>
#include <map>
#include <span>
#include <string>
#include <vector>

using Bytes = std::vector<std::uint8_t>;

// `size` bytes that count up from `first`.
Bytes counting(std::uint8_t first, std::size_t size = 32);
Bytes bytes_of(const std::string& text);
Bytes joined(std::initializer_list<std::span<const std::uint8_t>> parts);

// The examples made so far, by name.
class Examples {
 public:
  struct Entry {
    std::string text;
    std::size_t fixed_size = 0;  // without the variable fields
    bool variable = false;
    int type = -1;  // of a packet
  };

  void add(const std::string& name, const Entry& entry);
  const std::map<std::string, Entry>& all() const { return all_; }
  std::map<std::string, std::string> texts() const;

 private:
  std::map<std::string, Entry> all_;
};

// A packet, or a structure within one, field after field from its start. Goes into the examples
// when it is done, and fails the test unless every byte has been told.
class PacketExample {
 public:
  PacketExample(Examples& examples, const std::string& name, const Bytes& bytes)
      : examples_(examples), name_(name), bytes_(bytes) {}
  ~PacketExample();
  PacketExample(const PacketExample&) = delete;
  PacketExample& operator=(const PacketExample&) = delete;

  PacketExample& header(std::uint8_t type, std::uint8_t flags = 0, std::uint32_t session_id = 0);
  // Little-endian integers.
  PacketExample& u8(const char* field, std::uint64_t value) { return integer(field, 1, value); }
  PacketExample& u16(const char* field, std::uint64_t value) { return integer(field, 2, value); }
  PacketExample& u32(const char* field, std::uint64_t value) { return integer(field, 4, value); }
  PacketExample& u64(const char* field, std::uint64_t value) { return integer(field, 8, value); }
  PacketExample& id(const char* field, std::uint32_t value);  // of 4 bytes, shown in hexadecimal
  PacketExample& i32(const char* field, std::int32_t value);
  PacketExample& bytes(const char* field, std::span<const std::uint8_t> value);
  PacketExample& text(const char* field, const std::string& value);  // variable
  // Fields whose length the packet's sender chooses.
  PacketExample& variable(const char* field, std::span<const std::uint8_t> value);
  // Whatever stands there: ciphertext, tags.
  PacketExample& sealed(const char* field, std::size_t size);
  PacketExample& variable_sealed(const char* field, std::size_t size);

 private:
  PacketExample& integer(const char* field, std::size_t size, std::uint64_t value);
  PacketExample& take(const std::string& label, std::span<const std::uint8_t> value,
                      bool is_variable);
  std::span<const std::uint8_t> next(std::size_t size) const;

  Examples& examples_;
  const std::string name_;
  const Bytes bytes_;
  std::size_t at_ = 0;
  Examples::Entry entry_;
};

// Named values, a line each, long ones broken.
class ValuesExample {
 public:
  ValuesExample(Examples& examples, const std::string& name) : examples_(examples), name_(name) {}
  ~ValuesExample() { examples_.add(name_, {.text = text_}); }
  ValuesExample(const ValuesExample&) = delete;
  ValuesExample& operator=(const ValuesExample&) = delete;

  ValuesExample& value(const std::string& label, std::span<const std::uint8_t> bytes);
  ValuesExample& line(const std::string& label, const std::string& text);

 private:
  Examples& examples_;
  const std::string name_;
  std::string text_;
};
