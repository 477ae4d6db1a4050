#include "policy/SNIParser.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "ClientHelloBuilder.h"

namespace tarnwick {

void PrintTo(const SNIParseResult& result, std::ostream* out) {
  *out << "{serverName: " << result.serverName.value_or("(absent)") << ", alpn: [";
  for (const auto& protocol : result.alpn) *out << protocol << ";";
  *out << "], ja3: " << result.ja3.value_or("(absent)") << "}";
}

namespace {

struct CaseName {
  template <typename Param>
  std::string operator()(const ::testing::TestParamInfo<Param>& param) const {
    return param.param.name;
  }
};

SNIParseResult result(std::optional<std::string> serverName, std::vector<std::string> alpn = {}) {
  return {std::move(serverName), std::nullopt, std::move(alpn)};
}

struct CapturedCase {
  const char* name;  // file under hellos/, recorded from the client it is named after
  SNIParseResult expected;
};

const std::string kLongName =
    "label00-of-a-long-service-name.label01-of-a-long-service-name.label02-of-a-long-service-name."
    "label03-of-a-long-service-name.label04-of-a-long-service-name.label05-of-a-long-service-name."
    "example";

const std::vector<CapturedCase> kCaptured = {
    {"openssl_h2", result("api.example.com", {"h2", "http/1.1"})},
    {"openssl_tls12", result("h.example.com", {"h2"})},
    {"openssl_tls13", result("h.example.com", {"h2", "http/1.1"})},
    {"openssl_ffdhe",
     result("long-host-name-for-a-large-hello.cdn.example.net", {"h2", "http/1.1", "spdy/3.1"})},
    {"openssl_resumed_large",
     result(
         kLongName,
         {"h2",      "http/1.1",    "http/1.0",    "spdy/3",     "stun.turn", "stun.nat-discovery",
          "webrtc",  "c-webrtc",    "ftp",         "imap",       "pop3",      "managesieve",
          "coap",    "xmpp-client", "xmpp-server", "acme-tls/1", "mqtt",      "dot",
          "ntske/1", "sunrpc",      "h3",          "smb",        "irc",       "nntp",
          "nnsp",    "doq",         "sip/2",       "tds/8.0",    "dicom",     "postgresql"})},
    {"openssl_resumed_cas", result("www.example.com", {"h2", "http/1.1"})},
    {"curl", result("www.example.org", {"h2", "http/1.1"})},
    {"python", result("pypi.example.net", {"http/1.1"})},
    {"gnutls", result("gnutls.example.com", {"h2", "http/1.1"})},
    {"gnutls_ffdhe", result("big.example.org", {"h3"})},
};

class CapturedHelloTest : public ::testing::TestWithParam<CapturedCase> {
 protected:
  Bytes hello_ = readHello(GetParam().name);
};

TEST_P(CapturedHelloTest, ReadsNameAndProtocols) {
  ASSERT_FALSE(hello_.empty());
  EXPECT_EQ(SNIParser::parse(hello_), GetParam().expected);
}

TEST_P(CapturedHelloTest, TrailingBytesChangeNothing) {
  Bytes longer = hello_;
  longer.insert(longer.end(), {0x17, 0x03, 0x03, 0xFF, 0xFF, 0x00});
  EXPECT_EQ(SNIParser::parse(longer), GetParam().expected);
}

// The extension block ends where the record does, so every shorter cut lacks part of it.
TEST_P(CapturedHelloTest, EveryTruncationIsEmpty) {
  for (std::size_t cut = 0; cut < hello_.size(); ++cut) {
    const std::vector<std::uint8_t> prefix(hello_.begin(), hello_.begin() + cut);
    ASSERT_EQ(SNIParser::parse(prefix), SNIParser::empty) << "cut at " << cut;
  }
}

// Each length field is set to values around and far from its own. Fields the parser skips
// change nothing; an extension block claiming more than the buffer gives the empty result; and
// whatever else comes out was read from the buffer, never from beyond it.
TEST_P(CapturedHelloTest, EveryCorruptedLengthStaysInside) {
  const auto contains = [&](const std::string& text) {
    return textOf(hello_).find(text) != std::string_view::npos;
  };
  for (const LengthField& field : lengthFieldsOf(hello_)) {
    std::size_t original = 0;
    for (std::size_t i = 0; i < field.width; ++i)
      original = original << 8 | hello_[field.offset + i];
    const std::size_t max = (std::size_t{1} << (8 * field.width)) - 1;
    for (std::size_t value : {std::size_t{0}, std::size_t{1}, original - 1, original + 1, max}) {
      if (value > max || value == original) continue;
      Bytes corrupted = hello_;
      for (std::size_t i = 0; i < field.width; ++i) {
        corrupted[field.offset + i] =
            static_cast<std::uint8_t>(value >> (8 * (field.width - 1 - i)));
      }
      const SNIParseResult parsed = SNIParser::parse(corrupted);
      SCOPED_TRACE(field.name + " = " + std::to_string(value));
      if (!field.read) {
        EXPECT_EQ(parsed, GetParam().expected);
      }
      if (field.name == "extensions" && value > original) {
        EXPECT_EQ(parsed, SNIParser::empty);
      }
      EXPECT_TRUE(!parsed.serverName || contains(*parsed.serverName));
      for (const auto& protocol : parsed.alpn) EXPECT_TRUE(contains(protocol));
      EXPECT_EQ(parsed.ja3, std::nullopt);
    }
  }
}

INSTANTIATE_TEST_SUITE_P(RealClients, CapturedHelloTest, ::testing::ValuesIn(kCaptured),
                         CaseName());

struct BuiltCase {
  const char* name;
  Bytes hello;
  SNIParseResult expected;
};

class BuiltHelloTest : public ::testing::TestWithParam<BuiltCase> {};

TEST_P(BuiltHelloTest, Parses) {
  EXPECT_EQ(SNIParser::parse(GetParam().hello), GetParam().expected);
}

Bytes withByte(Bytes bytes, std::size_t at, std::uint8_t value) {
  bytes[at] = value;
  return bytes;
}

Bytes cut(Bytes bytes, std::size_t size) {
  bytes.resize(size);
  return bytes;
}

// The extension block's length grown by `extra`, as if the last extension claimed more.
Bytes lastExtensionOverruns(Bytes hello, std::size_t lastLengthAt) {
  hello[lastLengthAt + 1] = static_cast<std::uint8_t>(hello[lastLengthAt + 1] + 1);
  return hello;
}

const Bytes kPlain = ClientHelloBuilder().serverName("a.example").alpn({"h2", "h3"}).build();

INSTANTIATE_TEST_SUITE_P(
    Shapes, BuiltHelloTest,
    ::testing::Values(
        BuiltCase{"Plain", kPlain, result("a.example", {"h2", "h3"})},
        BuiltCase{"FortyTwoBytes", cut(kPlain, 42), SNIParser::empty},
        BuiltCase{"FortyThreeBytes", cut(kPlain, 43), SNIParser::empty},
        BuiltCase{"ApplicationDataRecord", withByte(kPlain, 0, 23), SNIParser::empty},
        BuiltCase{"ServerHello", withByte(kPlain, 5, 2), SNIParser::empty},
        BuiltCase{"NoExtensionsBlock", ClientHelloBuilder().withoutExtensionsBlock().build(),
                  SNIParser::empty},
        BuiltCase{"EmptyExtensionsBlock", ClientHelloBuilder().build(), result(std::nullopt)},
        BuiltCase{"NoSessionID", ClientHelloBuilder().sessionIDLength(0).serverName("x").build(),
                  result("x")},
        BuiltCase{"HostNameAfterOtherType",
                  ClientHelloBuilder().serverNames({{1, "other"}, {0, "b.example"}}).build(),
                  result("b.example")},
        BuiltCase{"OnlyOtherNameTypes", ClientHelloBuilder().serverNames({{1, "other"}}).build(),
                  result(std::nullopt)},
        BuiltCase{"FirstHostNameWins",
                  ClientHelloBuilder().serverNames({{0, "first"}, {0, "second"}}).build(),
                  result("first")},
        BuiltCase{"EmptyNamesKept", ClientHelloBuilder().serverName("").alpn({""}).build(),
                  result("", {""})},
        BuiltCase{"TrailingDotKept", ClientHelloBuilder().serverName("a.example.").build(),
                  result("a.example.")},
        BuiltCase{"LaterServerNameReplaces",
                  ClientHelloBuilder().serverName("a").serverNames({{1, "x"}}).build(),
                  result(std::nullopt)},
        BuiltCase{"LaterALPNReplaces", ClientHelloBuilder().alpn({"h2"}).alpn({"http/1.1"}).build(),
                  result(std::nullopt, {"http/1.1"})},
        BuiltCase{"InvalidUTF8NameStillGivesProtocols",
                  ClientHelloBuilder().serverName("bad\xC3").alpn({"h2"}).build(),
                  result(std::nullopt, {"h2"})},
        BuiltCase{"InvalidUTF8ProtocolSkipped",
                  ClientHelloBuilder().alpn({"h2", "\xFF", "h3"}).build(),
                  result(std::nullopt, {"h2", "h3"})},
        BuiltCase{"UTF8NameKept", ClientHelloBuilder().serverName("b\xC3\xBC.example").build(),
                  result("b\xC3\xBC.example")},
        BuiltCase{"ServerNameBodyTooShort",
                  ClientHelloBuilder().serverName("a").extension(0, {0}).build(),
                  result(std::nullopt)},
        BuiltCase{"ALPNBodyTooShort", ClientHelloBuilder().alpn({"h2"}).extension(16, {0}).build(),
                  result(std::nullopt)},
        BuiltCase{"ALPNEntryOverrunsBody",
                  ClientHelloBuilder().extension(16, {0, 6, 2, 'h', '2', 9, 'h', '3'}).build(),
                  result(std::nullopt, {"h2"})},
        BuiltCase{"NameOverrunsBody",
                  ClientHelloBuilder().extension(0, {0, 5, 0, 0, 9, 'a', 'b'}).alpn({"h2"}).build(),
                  result(std::nullopt, {"h2"})},
        BuiltCase{"UnknownExtensionsSkipped",
                  ClientHelloBuilder()
                      .extension(0xFE0D, Bytes(300, 7))
                      .serverName("c.example")
                      .extension(21, Bytes(40, 0))
                      .build(),
                  result("c.example")},
        BuiltCase{"LastExtensionOverrunsBlockKeepsEarlier",
                  lastExtensionOverruns(
                      ClientHelloBuilder().serverName("d.example").extension(21, {0}).build(),
                      ClientHelloBuilder().serverName("d.example").build().size() + 2),
                  result("d.example")}),
    CaseName());

}  // namespace
}  // namespace tarnwick
