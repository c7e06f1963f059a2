#include "control/settings.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

#include "control/keystore.h"
#include "control/keystore_internal.h"
#include "tests/support/temp_directory.h"

namespace {

using host_service::Settings;

class StoredSettings : public testing::Test {
 protected:
  void SetUp() override { keystore::internal::reset_for_test(keystore::User, directory_.path()); }
  void TearDown() override { keystore::internal::reset_for_test(keystore::User, {}); }
  std::filesystem::path file() const { return directory_ / "settings"; }
  TempDirectory directory_;
};

TEST_F(StoredSettings, WithNoneTheOptionsAreExactlyTheDefaultsOfAWorker) {
  const HostOptions options = host_app::load_settings();
  const HostOptions defaults;
  EXPECT_TRUE(options.machine_mode);
  EXPECT_EQ(options.port, 9876);
  EXPECT_EQ(options.pin, defaults.pin);
  EXPECT_EQ(options.display, defaults.display);
  EXPECT_EQ(options.fps, 60);
  EXPECT_EQ(options.bitrate_kbps, 20'000);
  EXPECT_TRUE(options.hevc);
  EXPECT_EQ(options.encoder, defaults.encoder);
  EXPECT_EQ(options.fec_percent, defaults.fec_percent);
  EXPECT_TRUE(options.audio);
  EXPECT_FALSE(options.no_mute_host);
  EXPECT_TRUE(options.mac_keys);
  EXPECT_EQ(options.virtual_display, "auto");
  EXPECT_EQ(options.max_datagram, 1'400);
  EXPECT_FALSE(options.console);
  EXPECT_FALSE(options.list_displays);
  EXPECT_FALSE(options.help);
}

TEST_F(StoredSettings, EachSavedFieldReachesItsOption) {
  ASSERT_TRUE(host_app::save_settings({.port = 1,
                                       .fps = 240,
                                       .bitrate_kbps = 500'000,
                                       .codec = 2,
                                       .audio = 0,
                                       .virtual_display = 0,
                                       .mac_keys = 0,
                                       .max_datagram = 512}));
  const HostOptions options = host_app::load_settings();
  EXPECT_TRUE(options.machine_mode);
  EXPECT_EQ(options.port, 1);
  EXPECT_EQ(options.fps, 240);
  EXPECT_EQ(options.bitrate_kbps, 500'000);
  EXPECT_FALSE(options.hevc);
  EXPECT_FALSE(options.audio);
  EXPECT_FALSE(options.mac_keys);
  EXPECT_EQ(options.virtual_display, "off");
  EXPECT_EQ(options.max_datagram, 512);
}

TEST_F(StoredSettings, TheVirtualDisplayIsOffAutoOrAlways) {
  const char* const texts[] = {"off", "auto", "always"};
  for (std::uint8_t value = 0; value < 3; ++value) {
    ASSERT_TRUE(host_app::save_settings({.virtual_display = value}));
    EXPECT_EQ(host_app::load_settings().virtual_display, texts[value]);
  }
}

TEST_F(StoredSettings, TheFileIsTheRecordItself) {
  const Settings settings{.port = 0x1234};
  ASSERT_TRUE(host_app::save_settings(settings));
  const std::vector<unsigned char> record = host_service::encode_settings(settings);
  EXPECT_EQ(file_content(file()), std::string(record.begin(), record.end()));
  EXPECT_EQ(record.size(), 16u);
}

TEST_F(StoredSettings, ARecordThatIsNotValidIsNotWritten) {
  EXPECT_FALSE(host_app::save_settings({.port = 0}));
  EXPECT_FALSE(host_app::save_settings({.fps = 241}));
  EXPECT_FALSE(std::filesystem::exists(file()));
}

TEST_F(StoredSettings, MalformedOnesAreNeverTakenForTheDefaults) {
  for (const std::size_t size : {0u, 15u, 16u, 17u}) {
    write_file(file(), std::string(size, '\0'));
    EXPECT_THROW(host_app::load_settings(), std::runtime_error) << size;
  }
}

}  // namespace
