#pragma once
// The host's nftables table, created through libnftables in one transaction. The table carries
// the owner flag, which binds it to this context's netlink socket: the kernel deletes it when
// that socket closes, so the context stays open for as long as the table should live, and a
// process that dies without cleaning up leaves no redirect behind.
// Used from one thread at a time (start and stop).

#include <string>

struct nft_ctx;

namespace tarnwick::host {

class NftTable {
 public:
  NftTable();
  ~NftTable();
  NftTable(const NftTable&) = delete;
  NftTable& operator=(const NftTable&) = delete;

  bool valid() const { return context_ != nullptr; }

  // Runs the script as one transaction; on failure returns false and says why in one line.
  bool run(const std::string& script, std::string& error);

 private:
  nft_ctx* context_;
};

}  // namespace tarnwick::host
