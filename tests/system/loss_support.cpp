#include "tests/system/loss_support.h"

#include <signal.h>

namespace system_test {
namespace {

constexpr NetworkLink BAD{.delay_us = 5'000, .loss = 0.05, .duplicate = 0.01, .reorder = 0.02};
// All of it happens to the few datagrams of the way to the host, too; the fourth is lost.
constexpr std::uint64_t SEED = 6;
constexpr int MOVING_SECONDS = 10;
constexpr int STILL_SECONDS = 2;  // one of them whole

lund_rv_endpoint host_at(int port) {
  lund_rv_endpoint address;
  lund_addr_parse(&address, "127.0.0.1", static_cast<std::uint16_t>(port));
  return address;
}

void expect_its_chances(const char* way, const LossyProxy::Counts& counts) {
  std::printf("%s: %s\n", way, counts.text().c_str());
  EXPECT_GT(counts.lost, 0u) << way;
  EXPECT_GT(counts.duplicated, 0u) << way;
  EXPECT_GT(counts.held_back, 0u) << way;
}

}  // namespace

LossyPath::LossyPath(int host_port) : proxy_(host_at(host_port), BAD, BAD, SEED) {}

std::string LossyPath::host_address() const {
  char text[LUND_ADDR_TEXT];
  lund_addr_format(text, sizeof text, proxy_.address());
  return text;
}

void LossyPath::stream(ChildProcess& client, ChildProcess& moving, RootPainter& painter) {
  std::size_t said = 0;
  const auto wait_for_seconds = [&](int count) {
    for (int second = 0; second < count && !testing::Test::HasFailure(); ++second) {
      EXPECT_TRUE(client.wait_for_output(" fps", seconds(30), said)) << client.output();
      said = client.output().find(" fps", said) + 1;
    }
  };
  wait_for_seconds(MOVING_SECONDS);
  moving.signal(SIGSTOP);
  wait_for_seconds(STILL_SECONDS);
  client.signal(SIGINT);
  EXPECT_EQ(client.wait(seconds(20)), 0) << client.output();
  stood_still_ = {painter.width(), painter.height(),
                  painter.rgb(0, 0, painter.width(), painter.height())};
  moving.signal(SIGCONT);
}

void LossyPath::expect_a_sound_stream(const nlohmann::json& report,
                                      const std::filesystem::path& recording,
                                      const RgbPicture& last) const {
  std::printf("%s\n", report.dump().c_str());
  expect_its_chances("to the host", proxy_.to_host());
  expect_its_chances("to the client", proxy_.to_client());
  ASSERT_EQ(report["paths"].size(), 1u) << report.dump();
  EXPECT_EQ(report["paths"][0]["address"], host_address());
  // A picture is a datagram at least.
  EXPECT_GT(proxy_.to_client().passed_on, report["frames"].get<std::uint64_t>());
  EXPECT_GT(report["frames_recovered"].get<int>(), 0);
  EXPECT_EQ(report["frames_undecodable"], 0);
  const RunResult decoded = decode_with_ffmpeg(recording);
  EXPECT_EQ(decoded.status, 0);
  EXPECT_EQ(decoded.output, "");
  const double psnr = luma_psnr(last, stood_still_);
  std::printf("luma PSNR %.1f dB\n", psnr);
  EXPECT_GE(psnr, 35.0);
}

}  // namespace system_test
