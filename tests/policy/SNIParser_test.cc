#include "policy/SNIParser.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "platform/Bytes.h"

namespace tarnwick {

void PrintTo(const SNIParseResult& result, std::ostream* out) {
  *out << result.serverName.value_or("(no name)") << " " << ::testing::PrintToString(result.alpn);
}

namespace {

// A result with this server name and these protocols, separated by blanks.
SNIParseResult named(std::optional<std::string> serverName, std::string_view alpn = "") {
  SNIParseResult result{std::move(serverName), std::nullopt, {}};
  for (std::size_t at = 0, end; at < alpn.size(); at = end + 1) {
    end = std::min(alpn.find(' ', at), alpn.size());
    result.alpn.emplace_back(alpn.substr(at, end - at));
  }
  return result;
}

// Recorded from the clients they are named after by hellos/capture.py.
TEST(SNIParser, ReadsRecordedHellosAndNothingFromAnyCutOfThem) {
  std::string longName = "example";
  for (char i : {'5', '4', '3', '2', '1', '0'})
    longName = "label0" + std::string(1, i) + "-of-a-long-service-name." + longName;
  for (const auto& [file, expected] : std::vector<std::pair<std::string, SNIParseResult>>{
           {"openssl_h2", named("api.example.com", "h2 http/1.1")},
           {"openssl_tls12", named("h.example.com", "h2")},
           {"openssl_tls13", named("h.example.com", "h2 http/1.1")},
           {"openssl_ffdhe",
            named("long-host-name-for-a-large-hello.cdn.example.net", "h2 http/1.1 spdy/3.1")},
           {"openssl_resumed_large",
            named(longName,
                  "h2 http/1.1 http/1.0 spdy/3 stun.turn stun.nat-discovery webrtc c-webrtc ftp "
                  "imap pop3 managesieve coap xmpp-client xmpp-server acme-tls/1 mqtt dot ntske/1 "
                  "sunrpc h3 smb irc nntp nnsp doq sip/2 tds/8.0 dicom postgresql")},
           {"openssl_resumed_cas", named("www.example.com", "h2 http/1.1")},
           {"curl", named("www.example.org", "h2 http/1.1")},
           {"python", named("pypi.example.net", "http/1.1")},
           {"gnutls", named("gnutls.example.com", "h2 http/1.1")},
           {"gnutls_ffdhe", named("big.example.org", "h3")}}) {
    std::ifstream in(std::filesystem::path(TARNWICK_HELLO_DIR) / (file + ".bin"), std::ios::binary);
    Bytes hello(std::istreambuf_iterator<char>(in), {});
    EXPECT_EQ(SNIParser::parse(hello), expected) << file;
    // The extension block ends where the record does, so every shorter cut lacks part of it.
    for (std::size_t cut = 0; cut < hello.size(); ++cut) {
      ASSERT_EQ(SNIParser::parse(std::span(hello).first(cut)), SNIParser::empty) << file << cut;
    }
    hello.insert(hello.end(), {0x17, 0x03, 0x03, 0xFF, 0xFF, 0x00});
    EXPECT_EQ(SNIParser::parse(hello), expected) << file << " and the next record";
  }
}

template <typename... Parts>
Bytes cat(const Parts&... parts) {
  Bytes out;
  (out.insert(out.end(), std::begin(parts), std::end(parts)), ...);
  return out;
}

Bytes u16(std::size_t value) { return {std::uint8_t(value >> 8), std::uint8_t(value)}; }

Bytes extension(std::uint16_t type, const Bytes& body) {
  return cat(u16(type), u16(body.size()), body);
}

// A server_name extension of (name type, name) entries.
Bytes names(const std::vector<std::pair<std::uint8_t, std::string>>& entries) {
  Bytes list;
  for (const auto& [type, name] : entries) list = cat(list, Bytes{type}, u16(name.size()), name);
  return extension(0, cat(u16(list.size()), list));
}

Bytes alpn(const std::vector<std::string>& protocols) {
  Bytes list;
  for (const auto& name : protocols) list = cat(list, Bytes{std::uint8_t(name.size())}, name);
  return extension(16, cat(u16(list.size()), list));
}

// A ClientHello record: TLS 1.2, a session ID, two cipher suites, null compression and the
// extension block.
Bytes hello(const Bytes& extensions, std::uint8_t sessionID = 32) {
  const Bytes body =
      cat(Bytes{3, 3}, Bytes(32, 0xA0), Bytes{sessionID}, Bytes(sessionID, 0x55),
          Bytes{0, 4, 0x13, 1, 0xC0, 0x2F, 1, 0}, u16(extensions.size()), extensions);
  const Bytes handshake = cat(Bytes{1, 0}, u16(body.size()), body);
  return cat(Bytes{22, 3, 1}, u16(handshake.size()), handshake);
}

Bytes with(Bytes bytes, std::size_t at, std::uint8_t value) {
  bytes[at] = value;
  return bytes;
}

TEST(SNIParser, ReadsTheFirstHostNameAndTheLastOfEachExtensionSkippingWhatDoesNotFit) {
  const Bytes plain = hello(cat(names({{0, "a.example"}}), alpn({"h2", "h3"})));
  const Bytes overrun = hello(cat(names({{0, "d.example"}}), extension(21, {0})));
  for (const auto& [name, input, expected] :
       std::vector<std::tuple<std::string, Bytes, SNIParseResult>>{
           {"PlainWithRecordLengthNotChecked", with(plain, 3, 0xFF), named("a.example", "h2 h3")},
           {"ApplicationDataRecord", with(plain, 0, 23), SNIParser::empty},
           {"ServerHello", with(plain, 5, 2), SNIParser::empty},
           {"NoSessionID", hello(names({{0, "x"}}), 0), named("x")},
           {"HostNameAfterOtherType", hello(names({{1, "o"}, {0, "b.example"}})),
            named("b.example")},
           {"FirstHostNameWins", hello(names({{0, "first"}, {0, "second"}})), named("first")},
           {"EmptyNamesKept", hello(cat(names({{0, ""}}), alpn({""}))),
            SNIParseResult{"", std::nullopt, {""}}},
           {"LaterExtensionsReplace",
            hello(cat(names({{0, "a"}}), names({{1, "x"}}), alpn({"h2"}), alpn({"http/1.1"}))),
            named(std::nullopt, "http/1.1")},
           {"InvalidUTF8Skipped",
            hello(cat(names({{0, "bad\xC3"}}), alpn({"h2", "\xFF", "b\xC3\xBC"}))),
            named(std::nullopt, "h2 b\xC3\xBC")},
           {"BodiesTooShort",
            hello(cat(names({{0, "a"}}), extension(0, {0}), alpn({"h2"}), extension(16, {0}))),
            named(std::nullopt)},
           {"EntriesOverrunTheirBody",
            hello(cat(extension(0, {0, 5, 0, 0, 9, 'a', 'b'}),
                      extension(16, {0, 6, 2, 'h', '2', 9, 'h', '3'}))),
            named(std::nullopt, "h2")},
           {"UnknownExtensionsSkipped",
            hello(cat(extension(0xFE0D, Bytes(300, 7)), names({{0, "c.example"}}),
                      extension(21, Bytes(40, 0)))),
            named("c.example")},
           {"LastExtensionOverrunsTheBlock", with(overrun, overrun.size() - 2, 2),
            named("d.example")}}) {
    EXPECT_EQ(SNIParser::parse(input), expected) << name;
  }
}

}  // namespace
}  // namespace tarnwick
