#include "BenchSupport.h"

#include <charconv>
#include <cstdio>
#include <iostream>

namespace vantrix::bench {

std::optional<Arguments> Arguments::parse(std::span<const std::string_view> args,
                                          const std::map<std::string_view, int>& arity) {
  Arguments result;
  for (std::size_t i = 0; i < args.size(); ++i) {
    const std::string_view arg = args[i];
    if (!arg.starts_with("--")) {
      result.m_positional.push_back(arg);
      continue;
    }
    const auto known = arity.find(arg);
    if (known == arity.end()) {
      std::cerr << "unknown option " << arg << "\n";
      return std::nullopt;
    }
    if (args.size() - 1 - i < static_cast<std::size_t>(known->second)) {
      std::cerr << arg << " needs " << known->second << " value(s)\n";
      return std::nullopt;
    }
    std::vector<std::string_view> values(args.begin() + static_cast<std::ptrdiff_t>(i) + 1,
                                         args.begin() + static_cast<std::ptrdiff_t>(i) + 1 + known->second);
    result.m_options.emplace_back(arg, std::move(values));
    i += static_cast<std::size_t>(known->second);
  }
  return result;
}

std::vector<std::vector<std::string_view>> Arguments::all(std::string_view option) const {
  std::vector<std::vector<std::string_view>> found;
  for (const auto& [name, values] : m_options)
    if (name == option) found.push_back(values);
  return found;
}

std::optional<std::string_view> Arguments::value(std::string_view option) const {
  const auto found = all(option);
  if (found.empty() || found.back().empty()) return std::nullopt;
  return found.back().front();
}

std::optional<long> parseCount(std::string_view text) {
  long value = 0;
  const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (ec != std::errc{} || end != text.data() + text.size() || value < 0) return std::nullopt;
  return value;
}

int succeed(const nlohmann::ordered_json& result) {
  std::cout << result.dump() << std::endl;
  return 0;
}

int fail(const AppError& error) {
  std::cerr << error.description() << std::endl;
  return 1;
}

int usageError(std::string_view message) {
  std::cerr << message << std::endl;
  return 2;
}

}  // namespace vantrix::bench
