#include "host/redirect/NftTable.h"

#include <nftables/libnftables.h>

namespace tarnwick::host {
namespace {

// libnftables reports several lines (the message, the offending text, a caret line); the first
// one says what went wrong.
std::string firstLine(const char* text) {
  if (text == nullptr || *text == '\0') return "nftables refused the rules";
  std::string line(text);
  if (const auto end = line.find('\n'); end != std::string::npos) line.resize(end);
  return line;
}

}  // namespace

NftTable::NftTable() : context_(nft_ctx_new(NFT_CTX_DEFAULT)) {
  if (context_ == nullptr) return;
  nft_ctx_buffer_output(context_);
  nft_ctx_buffer_error(context_);
}

NftTable::~NftTable() {
  if (context_ != nullptr) nft_ctx_free(context_);
}

bool NftTable::run(const std::string& script, std::string& error) {
  if (context_ == nullptr) {
    error = "nftables is unavailable";
    return false;
  }
  if (nft_run_cmd_from_buffer(context_, script.c_str()) == 0) return true;
  error = firstLine(nft_ctx_get_error_buffer(context_));
  return false;
}

}  // namespace tarnwick::host
