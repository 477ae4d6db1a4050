#pragma once
// Reading a subcommand's input file, "-" meaning standard input.

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <optional>
#include <string>

#include "platform/Bytes.h"

namespace tarnwick::cli {

// The whole file, or absent with `error` saying why.
inline std::optional<Bytes> readInput(const std::string& path, std::string& error) {
  std::FILE* file = path == "-" ? stdin : std::fopen(path.c_str(), "rb");
  if (file == nullptr) {
    error = "cannot open '" + path + "': " + std::strerror(errno);
    return std::nullopt;
  }
  Bytes contents;
  std::uint8_t chunk[4096];
  std::size_t n;
  while ((n = std::fread(chunk, 1, sizeof chunk, file)) > 0)
    contents.insert(contents.end(), chunk, chunk + n);
  const bool failed = std::ferror(file) != 0;
  const int readErrno = errno;
  if (file != stdin) std::fclose(file);
  if (failed) {
    error = "cannot read '" + path + "': " + std::strerror(readErrno);
    return std::nullopt;
  }
  return contents;
}

}  // namespace tarnwick::cli
