#include "control/ipc_protocol.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>

namespace {

using namespace host_service;
using Bytes = std::vector<unsigned char>;

constexpr Verb EMPTY_VERBS[] = {Verb::Status, Verb::PairingClose, Verb::ClearPassword,  Verb::Verb9,
                                Verb::Stop,   Verb::Heartbeat,    Verb::SecureAttention};

Bytes bytes_of(const std::string& text) {
  return Bytes(text.begin(), text.end());
}

Bytes seconds(std::uint32_t value) {
  return {static_cast<unsigned char>(value), static_cast<unsigned char>(value >> 8),
          static_cast<unsigned char>(value >> 16), static_cast<unsigned char>(value >> 24)};
}

// A frame laid out by hand, with whatever its header says.
Bytes frame(unsigned verb, std::uint32_t length, const Bytes& payload, unsigned version = 1,
            const std::string& magic = "LHIP") {
  Bytes out = bytes_of(magic);
  for (const unsigned value : {version, verb}) {
    out.push_back(static_cast<unsigned char>(value));
    out.push_back(static_cast<unsigned char>(value >> 8));
  }
  const Bytes size = seconds(length);
  out.insert(out.end(), size.begin(), size.end());
  out.insert(out.end(), payload.begin(), payload.end());
  return out;
}
Bytes frame(unsigned verb, const Bytes& payload = {}) {
  return frame(verb, static_cast<std::uint32_t>(payload.size()), payload);
}

// The codec's one judgement of a request, asked for in its three ways.
bool accepts(Verb verb, const Bytes& payload) {
  const bool valid = valid_request({verb, payload});
  const Bytes encoded = encode_request({verb, payload});
  const Bytes by_hand = frame(static_cast<unsigned>(verb), payload);
  EXPECT_EQ(encoded, valid ? by_hand : Bytes{});
  Request decoded{Verb::Stop, {7}};
  EXPECT_EQ(decode_request(by_hand.data(), by_hand.size(), &decoded), valid);
  EXPECT_EQ(decoded.verb, valid ? verb : Verb::Stop);
  EXPECT_EQ(decoded.payload, valid ? payload : Bytes{7});
  return valid;
}
bool accepts(Verb verb, const std::string& text) {
  return accepts(verb, bytes_of(text));
}

bool decodes(const Bytes& bytes) {
  Request request;
  return decode_request(bytes.data(), bytes.size(), &request);
}

bool answers(const Bytes& bytes, Verb expected) {
  Status status = Status::Failed;
  std::string text = "kept";
  const bool decoded = decode_response(bytes.data(), bytes.size(), expected, &status, &text);
  if (!decoded) {
    EXPECT_EQ(status, Status::Failed);
    EXPECT_EQ(text, "kept");
  }
  return decoded;
}

TEST(IpcHeader, AFrameIsLaidOutAsItsTableSays) {
  EXPECT_EQ(encode_request({Verb::PairingOpen, seconds(120)}),
            (Bytes{'L', 'H', 'I', 'P', 1, 0, 2, 0, 4, 0, 0, 0, 120, 0, 0, 0}));
  EXPECT_EQ(encode_response(Verb::PairingOpen, Status::Denied, "no"),
            (Bytes{'L', 'H', 'I', 'P', 1, 0, 2, 0x80, 6, 0, 0, 0, 2, 0, 0, 0, 'n', 'o'}));
}

TEST(IpcHeader, TheRightMagicWithALengthOf16385IsRefusedBeforeThePayload) {
  std::uint16_t verb = 0;
  std::uint32_t length = 0;
  const Bytes longest = frame(7, PAYLOAD_MAX, {});
  EXPECT_TRUE(decode_header(longest.data(), longest.size(), &verb, &length));
  EXPECT_EQ(length, 16'384u);
  const Bytes longer = frame(7, PAYLOAD_MAX + 1, {});
  EXPECT_FALSE(decode_header(longer.data(), longer.size(), &verb, &length));
  EXPECT_EQ(verb, 7u);
  EXPECT_EQ(length, 16'385u);
}

TEST(IpcHeader, ElevenBytesAnotherMagicAnotherVersionOrNoOutputAreRefused) {
  std::uint16_t verb = 55;
  std::uint32_t length = 66;
  const Bytes good = frame(1);
  const Bytes wrong_magic = frame(1, 0, {}, 1, "LHIQ");
  const Bytes wrong_version = frame(1, 0, {}, 2);
  EXPECT_FALSE(decode_header(good.data(), 11, &verb, &length));
  EXPECT_FALSE(decode_header(nullptr, 12, &verb, &length));
  EXPECT_FALSE(decode_header(wrong_magic.data(), 12, &verb, &length));
  EXPECT_FALSE(decode_header(wrong_version.data(), 12, &verb, &length));
  EXPECT_FALSE(decode_header(good.data(), 12, nullptr, &length));
  EXPECT_FALSE(decode_header(good.data(), 12, &verb, nullptr));
  EXPECT_EQ(verb, 55u);
  EXPECT_EQ(length, 66u);
}

TEST(IpcHeader, ItDoesNotLookAtTheVerb) {
  std::uint16_t verb = 0;
  std::uint32_t length = 0;
  const Bytes unknown = frame(0x8BCD);
  EXPECT_TRUE(decode_header(unknown.data(), unknown.size(), &verb, &length));
  EXPECT_EQ(verb, 0x8BCDu);
}

TEST(IpcRequest, AFrameOf13BytesWithLength0IsRefused) {
  EXPECT_FALSE(decodes(frame(1, 0, {0})));
  EXPECT_TRUE(decodes(frame(1)));
}

TEST(IpcRequest, AFrameThatIsCutOffAnywhereIsRefused) {
  const Bytes whole = encode_request({Verb::SetPassword, bytes_of("secret")});
  for (std::size_t size = 0; size < whole.size(); ++size)
    EXPECT_FALSE(decodes(Bytes(whole.begin(), whole.begin() + static_cast<long>(size)))) << size;
  Request request;
  EXPECT_FALSE(decode_request(nullptr, 12, &request));
  EXPECT_FALSE(decode_request(whole.data(), whole.size(), nullptr));
}

TEST(IpcRequest, Verbs1To10And32And33AreKnownAndNoOther) {
  const auto valid_for_some_verb = [](unsigned verb) {
    for (const Bytes& payload : {Bytes{}, seconds(120), Bytes(32, 'k'), encode_settings({})}) {
      if (decodes(frame(verb, payload))) return true;
    }
    return false;
  };
  for (unsigned verb = 0; verb <= 0xFFFF; ++verb) {
    const bool known = (verb >= 1 && verb <= 10) || verb == 32 || verb == 33;
    ASSERT_EQ(valid_for_some_verb(verb), known) << verb;
  }
}

TEST(IpcRequest, WhatHasNoArgumentRefusesOne) {
  for (const Verb verb : EMPTY_VERBS) {
    EXPECT_TRUE(accepts(verb, Bytes{})) << static_cast<int>(verb);
    EXPECT_FALSE(accepts(verb, Bytes{0})) << static_cast<int>(verb);
  }
}

TEST(IpcRequest, PairingOpenTakes30To300Seconds) {
  EXPECT_FALSE(accepts(Verb::PairingOpen, seconds(29)));
  EXPECT_TRUE(accepts(Verb::PairingOpen, seconds(30)));
  EXPECT_TRUE(accepts(Verb::PairingOpen, seconds(300)));
  EXPECT_FALSE(accepts(Verb::PairingOpen, seconds(301)));
  EXPECT_FALSE(accepts(Verb::PairingOpen, seconds(0x80000078)));
}

TEST(IpcRequest, PairingOpenTakesFourBytesAndNoOtherNumber) {
  EXPECT_FALSE(accepts(Verb::PairingOpen, Bytes{}));
  EXPECT_FALSE(accepts(Verb::PairingOpen, Bytes{120, 0, 0}));
  EXPECT_FALSE(accepts(Verb::PairingOpen, Bytes{120, 0, 0, 0, 0}));
}

TEST(IpcRequest, SetPasswordTakes1To256Bytes) {
  EXPECT_FALSE(accepts(Verb::SetPassword, ""));
  EXPECT_TRUE(accepts(Verb::SetPassword, "x"));
  EXPECT_TRUE(accepts(Verb::SetPassword, std::string(256, 'x')));
  EXPECT_FALSE(accepts(Verb::SetPassword, std::string(257, 'x')));
}

TEST(IpcRequest, APasswordWithAZeroByteOrInvalidUtf8IsRefused) {
  EXPECT_TRUE(accepts(Verb::SetPassword, "pässwörd 部屋 🖥"));
  EXPECT_FALSE(accepts(Verb::SetPassword, std::string("pass\0word", 9)));
  for (const char* invalid :
       {"\x80", "\xC0\x80", "\xC1\xBF", "\xC2", "\xE0\x9F\xBF", "\xED\xA0\x80", "\xED\xBF\xBF",
        "\xE2\x82", "\xF0\x8F\xBF\xBF", "\xF4\x90\x80\x80", "\xF5\x80\x80\x80", "ok\xFF"})
    EXPECT_FALSE(accepts(Verb::SetPassword, invalid)) << testing::PrintToString(invalid);
}

TEST(IpcRequest, RemoveDeviceTakes32RawBytes) {
  EXPECT_TRUE(accepts(Verb::RemoveDevice, Bytes(32, 0)));
  EXPECT_TRUE(accepts(Verb::RemoveDevice, Bytes(32, 0xFF)));
  EXPECT_FALSE(accepts(Verb::RemoveDevice, Bytes(31, 1)));
  EXPECT_FALSE(accepts(Verb::RemoveDevice, Bytes(33, 1)));
}

TEST(IpcRequest, SetRelaysIsLimitedByThePayloadAlone) {
  EXPECT_FALSE(accepts(Verb::SetRelays, ""));
  EXPECT_TRUE(accepts(Verb::SetRelays, "x"));
  EXPECT_TRUE(accepts(Verb::SetRelays, std::string(PAYLOAD_MAX, 'x')));
  EXPECT_FALSE(accepts(Verb::SetRelays, std::string(PAYLOAD_MAX + 1, 'x')));
  EXPECT_FALSE(accepts(Verb::SetRelays, std::string("a\0b", 3)));
  EXPECT_FALSE(accepts(Verb::SetRelays, "\xFF"));
}

TEST(IpcRequest, SetSettingsTakesAValidRecordAlone) {
  Bytes record = encode_settings({});
  EXPECT_TRUE(accepts(Verb::SetSettings, record));
  record[14] = 1;
  EXPECT_FALSE(accepts(Verb::SetSettings, record));
  EXPECT_FALSE(accepts(Verb::SetSettings, Bytes{}));
}

TEST(IpcResponse, WhatIsEncodedDecodes) {
  for (std::uint32_t number = 0; number <= 5; ++number) {
    const Bytes encoded = encode_response(Verb::Stop, static_cast<Status>(number), "words");
    Status status{};
    std::string text;
    ASSERT_TRUE(decode_response(encoded.data(), encoded.size(), Verb::Stop, &status, &text));
    EXPECT_EQ(status, static_cast<Status>(number));
    EXPECT_EQ(text, "words");
  }
  EXPECT_TRUE(answers(encode_response(Verb::Stop, Status::Ok, ""), Verb::Stop));
}

TEST(IpcResponse, ItsTextIsNotValidated) {
  const Bytes encoded = encode_response(Verb::Status, Status::Ok, std::string("\xFF\0", 2));
  Status status{};
  std::string text;
  ASSERT_TRUE(decode_response(encoded.data(), encoded.size(), Verb::Status, &status, &text));
  EXPECT_EQ(text, std::string("\xFF\0", 2));
}

TEST(IpcResponse, OneToVerb2IsRefusedByAReaderThatExpectsVerb1) {
  const Bytes response = frame(0x8002, Bytes(4));
  EXPECT_FALSE(answers(response, Verb::Status));
  EXPECT_TRUE(answers(response, Verb::PairingOpen));
  EXPECT_FALSE(answers(frame(0x0002, Bytes(4)), Verb::PairingOpen));
}

TEST(IpcResponse, Status6IsRefused) {
  EXPECT_TRUE(answers(frame(0x8001, {5, 0, 0, 0}), Verb::Status));
  EXPECT_FALSE(answers(frame(0x8001, {6, 0, 0, 0}), Verb::Status));
  EXPECT_FALSE(answers(frame(0x8001, {0, 0, 0, 1}), Verb::Status));
}

TEST(IpcResponse, APayloadOf3BytesIsRefused) {
  EXPECT_FALSE(answers(frame(0x8001, Bytes(3)), Verb::Status));
  EXPECT_FALSE(answers(frame(0x8001), Verb::Status));
}

TEST(IpcResponse, TrailingAndMissingBytesAreRefused) {
  EXPECT_FALSE(answers(frame(0x8001, 4, Bytes(5)), Verb::Status));
  EXPECT_FALSE(answers(frame(0x8001, 5, Bytes(4)), Verb::Status));
}

TEST(IpcResponse, ATextOf16380BytesFillsAFrameAndOneMoreIsRefused) {
  const Bytes full = encode_response(Verb::Status, Status::Ok, std::string(16'380, 'x'));
  EXPECT_EQ(full.size(), 16'396u);
  EXPECT_TRUE(answers(full, Verb::Status));
  EXPECT_TRUE(encode_response(Verb::Status, Status::Ok, std::string(16'381, 'x')).empty());
}

// One field of a record changed; whether encoder and decoder take it.
template <class Field>
bool takes(Field Settings::*field, unsigned value) {
  Settings settings;
  settings.*field = static_cast<Field>(value);
  const Bytes bytes = encode_settings(settings);
  Settings decoded;
  decoded.*field = static_cast<Field>(77);
  const bool decodes = decode_settings(bytes, &decoded);
  EXPECT_EQ(decodes, !bytes.empty());
  EXPECT_EQ(decoded.*field, static_cast<Field>(decodes ? value : 77));
  return decodes;
}

TEST(IpcSettings, TheDefaultsAreAValidRecord) {
  EXPECT_EQ(encode_settings({}),
            (Bytes{0x94, 0x26, 60, 0, 0x20, 0x4E, 0, 0, 1, 1, 1, 1, 0x78, 0x05, 0, 0}));
}

TEST(IpcSettings, EveryFieldHasItsPlace) {
  const Bytes bytes = {1, 2, 3, 0, 4, 5, 6, 0, 2, 0, 2, 0, 0, 4, 0, 0};
  Settings settings;
  ASSERT_TRUE(decode_settings(bytes, &settings));
  EXPECT_EQ(settings.port, 0x0201u);
  EXPECT_EQ(settings.fps, 3u);
  EXPECT_EQ(settings.bitrate_kbps, 0x060504u);
  EXPECT_EQ(settings.codec, 2u);
  EXPECT_EQ(settings.audio, 0u);
  EXPECT_EQ(settings.virtual_display, 2u);
  EXPECT_EQ(settings.mac_keys, 0u);
  EXPECT_EQ(settings.max_datagram, 1024u);
  EXPECT_EQ(encode_settings(settings), bytes);
}

TEST(IpcSettings, EveryFieldKeepsItsRange) {
  EXPECT_FALSE(takes(&Settings::port, 0));
  EXPECT_TRUE(takes(&Settings::port, 1));
  EXPECT_TRUE(takes(&Settings::port, 65'535));
  EXPECT_FALSE(takes(&Settings::fps, 0));
  EXPECT_TRUE(takes(&Settings::fps, 1));
  EXPECT_TRUE(takes(&Settings::fps, 240));
  EXPECT_FALSE(takes(&Settings::fps, 241));
  EXPECT_FALSE(takes(&Settings::bitrate_kbps, 499));
  EXPECT_TRUE(takes(&Settings::bitrate_kbps, 500));
  EXPECT_TRUE(takes(&Settings::bitrate_kbps, 500'000));
  EXPECT_FALSE(takes(&Settings::bitrate_kbps, 500'001));
  EXPECT_FALSE(takes(&Settings::codec, 0));
  EXPECT_TRUE(takes(&Settings::codec, 2));
  EXPECT_FALSE(takes(&Settings::codec, 3));
  EXPECT_TRUE(takes(&Settings::audio, 0));
  EXPECT_FALSE(takes(&Settings::audio, 2));
  EXPECT_TRUE(takes(&Settings::virtual_display, 2));
  EXPECT_FALSE(takes(&Settings::virtual_display, 3));
  EXPECT_TRUE(takes(&Settings::mac_keys, 0));
  EXPECT_FALSE(takes(&Settings::mac_keys, 2));
  EXPECT_FALSE(takes(&Settings::max_datagram, 511));
  EXPECT_TRUE(takes(&Settings::max_datagram, 512));
  EXPECT_TRUE(takes(&Settings::max_datagram, 1'400));
  EXPECT_FALSE(takes(&Settings::max_datagram, 1'401));
}

TEST(IpcSettings, AReservedFieldThatIsNotZeroOrAnotherSizeIsRefused) {
  for (const std::size_t at : {14, 15}) {
    Bytes bytes = encode_settings({});
    bytes[at] = 1;
    EXPECT_FALSE(decode_settings(bytes, nullptr));
  }
  for (const std::size_t size : {0, 15, 17}) {
    Bytes bytes = encode_settings({});
    bytes.resize(size);
    EXPECT_FALSE(decode_settings(bytes, nullptr));
  }
}

}  // namespace
