#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace vantrix {

// Standard base64 (RFC 4648 section 4: "A–Z a–z 0–9 + /") with "=" padding, the form of the
// session file's "videoBookmark".
std::string encodeBase64(std::span<const std::uint8_t> bytes);

// Strict decoding: the length is a multiple of 4, only the standard alphabet, at most two "="
// and only at the very end, and the unused bits before the padding are zero (so every accepted
// text is exactly what encodeBase64 writes for its bytes). No whitespace. Anything else: nothing.
std::optional<std::vector<std::uint8_t>> decodeBase64(std::string_view text);

}  // namespace vantrix
