#pragma once

// The stand-in for the original platform's security-scoped bookmark: the UTF-8 bytes of the
// video's absolute path. It resolves only while a file (or folder) exists at that path, so a
// deleted or moved video no longer resolves, as a bookmark to a vanished volume would not.

#include <QString>

#include <cstdint>
#include <optional>
#include <span>
#include <vector>

namespace vantrix {

// Made when a video is opened; `path` is made absolute against the working folder, links are kept.
std::vector<std::uint8_t> makeBookmark(const QString& path);

// The path, when the bytes are valid UTF-8 without NUL, name an absolute path and something exists
// there (a final symbolic link is followed: a dangling link does not resolve). Otherwise nothing.
std::optional<QString> resolveBookmark(std::span<const std::uint8_t> bookmark);

}  // namespace vantrix
