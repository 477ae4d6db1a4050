#include "CompanionOptions.h"

#include <algorithm>
#include <vector>

#include "platform/OptionReader.h"

namespace tarnwick::companion {

std::optional<UsageError> applyOptions(std::span<const std::string_view> args,
                                       std::span<const Option> options, bool& help) {
  OptionReader reader({args.begin(), args.end()});
  while (const auto name = reader.next()) {
    if (*name == "--help" || *name == "-h") {
      help = true;
      continue;
    }
    const auto option =
        std::ranges::find_if(options, [&](const Option& known) { return known.name == *name; });
    if (option == options.end()) return UsageError{"unknown option '" + *name + "'"};
    std::optional<std::string> value = option->flag ? std::string() : reader.value();
    if (!value || (!option->flag && value->empty())) {
      return UsageError{"option '" + *name + "' needs a value"};
    }
    if (auto error = option->apply(*value)) return UsageError{std::move(*error)};
  }
  return std::nullopt;
}

}  // namespace tarnwick::companion
