#pragma once

// What every vantrix-bench subcommand shares: its arguments, its one line of JSON, its way of
// failing, and a clock.

#include "media/AppError.h"

#include <nlohmann/json.hpp>

#include <chrono>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace vantrix::bench {

// A subcommand: its name, its argument synopsis for the usage text, and its entry point, which
// receives the arguments after the name and returns the process exit code.
struct Command {
  std::string_view name;
  std::string_view synopsis;
  int (*run)(std::span<const std::string_view> args);
};

// Every subcommand, in the order the usage text lists them.
std::span<const Command> commands();

// Positional arguments and "--name value..." options. Each option takes the number of values
// given in `arity`; an option may repeat (--segment ... --segment ...).
class Arguments {
 public:
  // nullopt, with a message on stderr, for an unknown option or one missing its values.
  static std::optional<Arguments> parse(std::span<const std::string_view> args,
                                        const std::map<std::string_view, int>& arity);

  const std::vector<std::string_view>& positional() const { return m_positional; }
  // Every occurrence of an option, each with its values.
  std::vector<std::vector<std::string_view>> all(std::string_view option) const;
  // The single value of an option, or nullopt when it was not given.
  std::optional<std::string_view> value(std::string_view option) const;

 private:
  std::vector<std::string_view> m_positional;
  std::vector<std::pair<std::string_view, std::vector<std::string_view>>> m_options;
};

// A whole non-negative number, or nullopt.
std::optional<long> parseCount(std::string_view text);

// Prints `result` as one line on stdout; returns exit code 0.
int succeed(const nlohmann::ordered_json& result);
// Prints the user-facing text of `error` on stderr; returns exit code 1.
int fail(const AppError& error);
// Prints a usage problem on stderr; returns exit code 2.
int usageError(std::string_view message);

class Stopwatch {
 public:
  Stopwatch() : m_start(std::chrono::steady_clock::now()) {}
  double seconds() const { return std::chrono::duration<double>(std::chrono::steady_clock::now() - m_start).count(); }
  double milliseconds() const { return seconds() * 1000.0; }

 private:
  std::chrono::steady_clock::time_point m_start;
};

}  // namespace vantrix::bench
