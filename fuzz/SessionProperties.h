#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace vantrix::fuzz {

// What must hold for any bytes handed to the session decoder (the fuzzer aborts on a violation,
// tests/persistence replays the committed corpus and every past finding through it):
//   - decoding returns, never throws or crashes;
//   - a decoded session encodes, and the encoding decodes to the identical session (every time's
//     representation, the date bit for bit) and encodes to the same bytes again; no "/" is left
//     unescaped in it;
//   - restoring the decoded session, against a fixed source duration and against its own trim end,
//     either refuses or yields a timeline that keeps every invariant, has as many segments as
//     stored, each with a fresh id, and whose time mappings run.
// Returns a description of the first violation, or nothing.
std::optional<std::string> checkSessionProperties(std::string_view bytes);

}  // namespace vantrix::fuzz
