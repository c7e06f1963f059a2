#include "tests/system/clipboard_support.h"

#include <signal.h>

namespace system_test {

namespace {

bool says(ChildProcess& program, const std::string& text, seconds deadline, std::size_t* heard) {
  if (!program.wait_for_output(text, deadline, *heard)) return false;
  *heard = program.output().find(text, *heard) + text.size();
  return true;
}

bool is_png(const std::string& content) {
  return content.starts_with("\x89PNG");
}

}  // namespace

std::size_t count_of(const std::string& text, const std::string& what) {
  std::size_t count = 0;
  for (std::size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1))
    ++count;
  return count;
}

std::string text_of(const std::vector<std::uint8_t>& bytes) {
  return {bytes.begin(), bytes.end()};
}

void ClipboardTest::TearDown() {
  if (HasFailure() && receiver_) ADD_FAILURE() << "the client said:\n" << receiver_->output();
  desk_.reset();
  SystemTest::TearDown();
}

void ClipboardTest::prepare(int width, int height) {
  start_desktop(width, height);
  desk_ = std::make_unique<Xclip>(desktop_->display());
  serve();
  pair();
}

void ClipboardTest::serve() {
  if (host_) sent_by_former_hosts_ = items_sent();
  host_heard_ = 0;
  start_host({"--codec", "h264", "--console"});
}

ChildProcess& ClipboardTest::join(const std::vector<std::string>& more) {
  std::vector<std::string> arguments = {"--clipboard-get", kept_path().string()};
  arguments.insert(arguments.end(), more.begin(), more.end());
  std::filesystem::remove(kept_path());
  launch_receiver(arguments);
  client_heard_ = 0;
  // The host says so once its clipboard knows of the session.
  EXPECT_TRUE(host_says(" started: ", seconds(20)));
  return *receiver_;
}

std::optional<int> ClipboardTest::leave() {
  receiver_->signal(SIGINT);
  const auto status = receiver_->wait(seconds(10));
  EXPECT_TRUE(host_says(" ended ("));
  return status;
}

std::string ClipboardTest::kept() const {
  return file_content(kept_path());
}

RunResult ClipboardTest::give(const std::string& content, std::vector<std::string> more) {
  const std::filesystem::path path = directory_ / "given";
  write_file(path, content);
  more.insert(more.begin(), {"connect", "--host", host_address(), "--seconds", "0.1",
                             "--clipboard-set", path.string()});
  return client(more);
}

void ClipboardTest::give_to_desktop(const std::string& content) {
  const RunResult given = give(content);
  EXPECT_EQ(given.status, 0) << given.output;
  EXPECT_NE(given.output.find("clipboard: delivered"), std::string::npos) << given.output;
  EXPECT_TRUE(desk_->changed());
}

void ClipboardTest::copy_to_client(const std::string& content, const std::string& target) {
  desk_->copy(content, target);
  EXPECT_TRUE(client_says("clipboard: received " + std::to_string(content.size()) + " bytes of " +
                          (is_png(content) ? "PNG" : "text")));
  EXPECT_TRUE(host_says(" delivered in "));  // and so it has said all that came before
}

bool ClipboardTest::host_says(const std::string& text, seconds deadline) {
  return says(*host_, text, deadline, &host_heard_);
}

bool ClipboardTest::client_says(const std::string& text, seconds deadline) {
  return says(*receiver_, text, deadline, &client_heard_);
}

std::size_t ClipboardTest::items_sent() const {
  return sent_by_former_hosts_ + count_of(host_->output(), "clipboard: sending #");
}

RunResult ClipboardTest::run_host(std::vector<std::string> arguments) {
  arguments.insert(arguments.begin(), program("lunderhaze"));
  return run_program(arguments, environment_, seconds(30));
}

}  // namespace system_test
