#include "apps/ctl/password.h"

#include "connection/secure.h"

namespace ctl {

namespace {

class FilePasswords final : public PasswordSource {
 public:
  explicit FilePasswords(std::FILE* input) : input_(input) {
    std::setvbuf(input, nullptr, _IONBF, 0);
  }

  bool read(const std::string&, Password* password) override {
    password->clear();
    bool carriage_return = false;  // kept back: part of the line's end when that follows
    int byte = std::fgetc(input_);
    if (byte == EOF) return false;
    for (; byte != EOF && byte != '\n'; byte = std::fgetc(input_)) {
      if (carriage_return) password->add('\r');
      carriage_return = byte == '\r';
      if (!carriage_return) password->add(static_cast<char>(byte));
    }
    return true;
  }
  bool blind() const override { return false; }

 private:
  std::FILE* input_;
};

}  // namespace

void Password::add(char byte) {
  if (size_ < bytes_.size())
    bytes_[size_++] = byte;
  else
    too_long_ = true;
}

void Password::clear() {
  lund_secure_wipe(bytes_.data(), bytes_.size());
  size_ = 0;
  too_long_ = false;
}

std::unique_ptr<PasswordSource> passwords_of(std::FILE* input) {
  return std::make_unique<FilePasswords>(input);
}

}  // namespace ctl
