#pragma once
// Builds ClientHello records for the parser tests, and finds the length fields of any
// well-formed one (built or captured from a real client) so tests can corrupt each of them.

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <utility>
#include <vector>

#include "platform/Bytes.h"

namespace tarnwick {

class ClientHelloBuilder {
 public:
  ClientHelloBuilder& sessionIDLength(std::uint8_t length) {
    session_id_length_ = length;
    return *this;
  }
  // Entries of the server_name extension as (name type, name).
  ClientHelloBuilder& serverNames(std::vector<std::pair<std::uint8_t, std::string>> entries) {
    Bytes body = {0, 0};
    for (const auto& [type, name] : entries) {
      body.push_back(type);
      appendU16(body, name.size());
      body.insert(body.end(), name.begin(), name.end());
    }
    setU16(body, 0, body.size() - 2);
    return extension(0, body);
  }
  ClientHelloBuilder& serverName(const std::string& name) { return serverNames({{0, name}}); }
  ClientHelloBuilder& alpn(const std::vector<std::string>& protocols) {
    Bytes body = {0, 0};
    for (const auto& protocol : protocols) {
      body.push_back(static_cast<std::uint8_t>(protocol.size()));
      body.insert(body.end(), protocol.begin(), protocol.end());
    }
    setU16(body, 0, body.size() - 2);
    return extension(16, body);
  }
  ClientHelloBuilder& extension(std::uint16_t type, const Bytes& body) {
    appendU16(extensions_, type);
    appendU16(extensions_, body.size());
    extensions_.insert(extensions_.end(), body.begin(), body.end());
    return *this;
  }
  // Ends the message right after the compression methods.
  ClientHelloBuilder& withoutExtensionsBlock() {
    extensions_block_ = false;
    return *this;
  }

  Bytes build() const {
    Bytes hello = {1, 0, 0, 0, 0x03, 0x03};  // ClientHello, length, TLS 1.2 client version
    for (int i = 0; i < 32; ++i) hello.push_back(static_cast<std::uint8_t>(0xA0 + i));  // random
    hello.push_back(session_id_length_);
    hello.insert(hello.end(), session_id_length_, 0x55);
    appendU16(hello, 4);
    hello.insert(hello.end(), {0x13, 0x01, 0xC0, 0x2F});  // two cipher suites
    hello.insert(hello.end(), {1, 0});                    // null compression
    if (extensions_block_) {
      appendU16(hello, extensions_.size());
      hello.insert(hello.end(), extensions_.begin(), extensions_.end());
    }
    const std::size_t bodyLength = hello.size() - 4;
    hello[1] = static_cast<std::uint8_t>(bodyLength >> 16);
    setU16(hello, 2, bodyLength);
    Bytes record = {22, 3, 1, 0, 0};
    setU16(record, 3, hello.size());
    record.insert(record.end(), hello.begin(), hello.end());
    return record;
  }

 private:
  static void appendU16(Bytes& bytes, std::size_t value) {
    bytes.push_back(static_cast<std::uint8_t>(value >> 8));
    bytes.push_back(static_cast<std::uint8_t>(value));
  }
  static void setU16(Bytes& bytes, std::size_t at, std::size_t value) {
    bytes[at] = static_cast<std::uint8_t>(value >> 8);
    bytes[at + 1] = static_cast<std::uint8_t>(value);
  }

  std::uint8_t session_id_length_ = 32;
  bool extensions_block_ = true;
  Bytes extensions_;
};

// A length field of a well-formed ClientHello record.
struct LengthField {
  std::string name;
  std::size_t offset;
  std::size_t width;  // bytes, big-endian
  // True when the parser reads it; the record, handshake and list lengths it skips are false.
  bool read;
};

inline std::vector<LengthField> lengthFieldsOf(const Bytes& hello) {
  const auto u16 = [&](std::size_t at) { return std::size_t{hello[at]} << 8 | hello[at + 1]; };
  std::vector<LengthField> fields = {
      {"record", 3, 2, false}, {"handshake", 6, 3, false}, {"session id", 43, 1, true}};
  std::size_t p = 44 + hello[43];
  fields.push_back({"cipher suites", p, 2, true});
  p += 2 + u16(p);
  fields.push_back({"compression", p, 1, true});
  p += 1 + hello[p];
  fields.push_back({"extensions", p, 2, true});
  const std::size_t end = p + 2 + u16(p);
  for (p += 2; p + 4 <= end; p += 4 + u16(p + 2)) {
    const std::size_t type = u16(p);
    const std::string prefix = "extension " + std::to_string(type);
    fields.push_back({prefix, p + 2, 2, true});
    const std::size_t bodyEnd = p + 4 + u16(p + 2);
    if (type == 0 && bodyEnd >= p + 6) {
      fields.push_back({prefix + " list", p + 4, 2, false});
      for (std::size_t q = p + 6; q + 3 <= bodyEnd; q += 3 + u16(q + 1)) {
        fields.push_back({prefix + " name", q + 1, 2, true});
      }
    } else if (type == 16 && bodyEnd >= p + 6) {
      fields.push_back({prefix + " list", p + 4, 2, false});
      for (std::size_t q = p + 6; q < bodyEnd; q += 1 + hello[q]) {
        fields.push_back({prefix + " protocol", q, 1, true});
      }
    }
  }
  return fields;
}

// A ClientHello recorded from a real client by hellos/capture.py.
inline Bytes readHello(const std::string& name) {
  const auto path = std::filesystem::path(TARNWICK_HELLO_DIR) / (name + ".bin");
  std::ifstream in(path, std::ios::binary);
  return Bytes(std::istreambuf_iterator<char>(in), {});
}

}  // namespace tarnwick
