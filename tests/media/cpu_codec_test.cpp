#include "media/cpu_codec.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using lund_cpu::CodecCandidate;
using testing::ElementsAre;
using Bytes = std::vector<std::uint8_t>;

// The names that are offered when every candidate is refused.
std::vector<std::string> offers(bool prefer_hevc, bool hardware, const std::string& preferred,
                                const std::string& required) {
  std::vector<std::string> names;
  const auto chosen = lund_cpu::select_codec(prefer_hevc, hardware, preferred, required,
                                             [&names](const CodecCandidate& candidate) {
                                               names.push_back(candidate.name);
                                               return false;
                                             });
  EXPECT_FALSE(chosen);
  return names;
}

TEST(SelectCodec, ARequiredEncoderIsTheOnlyOneOffered) {
  EXPECT_THAT(offers(true, true, "h264_qsv", "h264_amf"), ElementsAre("h264_amf"));
  EXPECT_THAT(offers(false, false, "h264_qsv", "h264_amf"), ElementsAre("h264_amf"));
}

TEST(SelectCodec, WithoutADeviceOnlyTheSoftwareEncoderFollowsThePreferred) {
  EXPECT_THAT(offers(false, false, "h264_qsv", ""), ElementsAre("h264_qsv", "libopenh264"));
  EXPECT_THAT(offers(true, false, "", ""), ElementsAre("libopenh264"));
}

TEST(SelectCodec, ADeviceGivesSixOffersInTheOrderOfThePreference) {
  EXPECT_THAT(offers(false, true, "", ""), ElementsAre("h264_nvenc", "h264_amf", "h264_qsv",
                                                       "hevc_nvenc", "hevc_amf", "hevc_qsv"));
  EXPECT_THAT(offers(true, true, "", ""), ElementsAre("hevc_nvenc", "hevc_amf", "hevc_qsv",
                                                      "h264_nvenc", "h264_amf", "h264_qsv"));
}

TEST(SelectCodec, ThePreferredComesFirstAndAgainInItsPlace) {
  EXPECT_THAT(offers(false, true, "h264_qsv", ""),
              ElementsAre("h264_qsv", "h264_nvenc", "h264_amf", "h264_qsv", "hevc_nvenc",
                          "hevc_amf", "hevc_qsv"));
}

TEST(SelectCodec, TheFirstThatIsTakenIsTheResultWithItsOwnFamily) {
  const auto chosen = lund_cpu::select_codec(
      false, true, "", "", [](const CodecCandidate& candidate) { return candidate.hevc; });
  ASSERT_TRUE(chosen);
  EXPECT_EQ(chosen->name, "hevc_nvenc");
  EXPECT_TRUE(chosen->hevc);
}

TEST(SelectCodec, WithoutATestItThrows) {
  EXPECT_THROW(lund_cpu::select_codec(false, false, "", "", {}), std::bad_function_call);
}

TEST(CodecIsHevc, GoesByTheName) {
  EXPECT_TRUE(lund_cpu::codec_is_hevc("hevc_amf"));
  EXPECT_TRUE(lund_cpu::codec_is_hevc("libx265"));
  EXPECT_TRUE(lund_cpu::codec_is_hevc("265"));
  EXPECT_FALSE(lund_cpu::codec_is_hevc("h264_qsv"));
  EXPECT_FALSE(lund_cpu::codec_is_hevc("libopenh264"));
  EXPECT_FALSE(lund_cpu::codec_is_hevc(""));
}

bool h264(const Bytes& bytes) {
  return lund_cpu::h264_bootstrap(bytes.data(), bytes.size());
}
bool hevc(const Bytes& bytes) {
  return lund_cpu::hevc_bootstrap(bytes.data(), bytes.size());
}

Bytes stream(std::initializer_list<Bytes> units) {
  Bytes bytes;
  for (const auto& unit : units) bytes.insert(bytes.end(), unit.begin(), unit.end());
  return bytes;
}

const Bytes SPS = {0, 0, 0, 1, 0x67, 0x42, 0x00};
const Bytes PPS = {0, 0, 1, 0x68, 0xCE};
const Bytes IDR = {0, 0, 1, 0x65, 0x88, 0x84};

TEST(H264Bootstrap, TakesStartCodesOfBothLengthsInAnyOrder) {
  EXPECT_TRUE(h264(stream({SPS, PPS, IDR})));
  EXPECT_TRUE(h264(stream({IDR, PPS, SPS})));
}

TEST(H264Bootstrap, ParameterSetsAloneCannotStartAPicture) {
  EXPECT_FALSE(h264(stream({SPS, PPS})));
  EXPECT_FALSE(h264(stream({SPS, IDR})));
  EXPECT_FALSE(h264(stream({PPS, IDR})));
  EXPECT_FALSE(h264(stream({SPS, PPS, {0, 0, 1, 0x41, 0x9A}}))) << "a slice that is not IDR";
}

TEST(H264Bootstrap, AStartCodeAtTheVeryEndHasNoUnit) {
  EXPECT_TRUE(h264(stream({SPS, PPS, {0, 0, 1, 0x65}})));
  EXPECT_FALSE(h264(stream({SPS, PPS, {0, 0, 0, 1}})));
  EXPECT_FALSE(h264(stream({SPS, PPS, {0, 0, 1}})));
}

TEST(H264Bootstrap, NullAndShortBuffersAreFalse) {
  EXPECT_FALSE(lund_cpu::h264_bootstrap(nullptr, 100));
  EXPECT_FALSE(h264({}));
  EXPECT_FALSE(h264({0, 0, 1}));
}

const Bytes HEVC_SETS = {0, 0, 0, 1, 32 << 1, 1, 0, 0, 1, 33 << 1, 1, 0, 0, 0, 1, 34 << 1, 1};
Bytes hevc_slice(unsigned type) {
  return {0, 0, 1, static_cast<std::uint8_t>(type << 1), 1, 0xAF};
}

TEST(HevcBootstrap, TakesBothKindsOfIdr) {
  EXPECT_TRUE(hevc(stream({HEVC_SETS, hevc_slice(19)})));
  EXPECT_TRUE(hevc(stream({HEVC_SETS, hevc_slice(20)})));
}

TEST(HevcBootstrap, ACleanRandomAccessPictureIsNoStart) {
  EXPECT_FALSE(hevc(stream({HEVC_SETS, hevc_slice(21)})));
  EXPECT_FALSE(hevc(HEVC_SETS));
}

TEST(HevcBootstrap, NeedsEachParameterSet) {
  const Bytes vps = {0, 0, 1, 32 << 1, 1};
  const Bytes sps = {0, 0, 1, 33 << 1, 1};
  const Bytes pps = {0, 0, 1, 34 << 1, 1};
  EXPECT_TRUE(hevc(stream({vps, sps, pps, hevc_slice(19)})));
  EXPECT_FALSE(hevc(stream({sps, pps, hevc_slice(19)})));
  EXPECT_FALSE(hevc(stream({vps, pps, hevc_slice(19)})));
  EXPECT_FALSE(hevc(stream({vps, sps, hevc_slice(19)})));
}

TEST(HevcBootstrap, NullAndShortBuffersAreFalse) {
  EXPECT_FALSE(lund_cpu::hevc_bootstrap(nullptr, 100));
  EXPECT_FALSE(hevc({0, 0, 1, 64}));
}

TEST(SessionReady, NeedsAllThree) {
  for (unsigned bits = 0; bits < 8; ++bits)
    EXPECT_EQ(lund_cpu::session_ready(bits & 1, bits & 2, bits & 4), bits == 7);
}

TEST(CloseInitialPairing, IsTheHostsOwnDecision) {
  EXPECT_TRUE(lund_cpu::close_initial_pairing(true));
  EXPECT_FALSE(lund_cpu::close_initial_pairing(false));
}

}  // namespace
