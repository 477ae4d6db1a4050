#pragma once
// Reads "--name VALUE" and "--name=VALUE" options in order, so each command line (the
// interceptor's subcommands, the front door, the daemon) only says what its names mean.

#include <optional>
#include <string>
#include <vector>

namespace tarnwick {

class OptionReader {
 public:
  explicit OptionReader(std::vector<std::string> args) : args_(std::move(args)) {}

  // The next option's name ("--listen-port"), or absent at the end. An argument that is not an
  // option comes back as it is; the caller rejects it.
  std::optional<std::string> next();
  // The value of the option just read; absent (and an error set) when it has none.
  std::optional<std::string> value();
  bool failed() const { return !error_.empty(); }
  const std::string& error() const { return error_; }
  void fail(std::string error) { error_ = std::move(error); }

 private:
  const std::vector<std::string> args_;
  std::size_t index_ = 0;
  std::string name_;
  std::optional<std::string> inline_value_;
  std::string error_;
};

// A decimal or 0x-prefixed hexadecimal unsigned number no larger than `maximum`.
std::optional<unsigned long> parseUnsigned(const std::string& text, unsigned long maximum);

}  // namespace tarnwick
