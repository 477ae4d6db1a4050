// The build without BPF tools: kernel-side selection is never available.
#include "host/selection/SelectionPrograms.h"

namespace tarnwick::host {

std::unique_ptr<SelectionPrograms> loadSelectionPrograms(const SelectionSettings&,
                                                         std::string& whyNot) {
  whyNot = "this build has no BPF programs (clang or bpftool was missing when it was configured)";
  return nullptr;
}

}  // namespace tarnwick::host
