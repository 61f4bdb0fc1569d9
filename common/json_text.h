// JSON values as text. `fromString` reads back everything that `toString` writes.
#pragma once

#include <json/value.h>

#include <cstddef>
#include <string>

namespace ZELT::TokenManager {

/// How deep arrays and objects may be nested. Enough for any sensible document. jsoncpp visits,
/// copies and frees values by recursion, so depth costs stack.
constexpr int kMaxJsonDepth = 1000;

/// Limits the memory that a file written by another user can make this process use.
constexpr std::size_t kMaxFileBytes = 4U << 20;

/// Returns `value` as one line without a newline. Characters outside ASCII are not escaped. Throws
/// `std::runtime_error` for values that could not be read back: nesting deeper than
/// `kMaxJsonDepth`, numbers that are not finite, and text that is not UTF-8.
std::string toString(const Json::Value& value);

/// Parses `text`, one JSON value (RFC 8259) of any type in UTF-8. Returns false and leaves `value`
/// unchanged for anything else, including duplicate names, nesting deeper than `kMaxJsonDepth` and
/// numbers too large for a double. Integers beyond 64 bits are read as doubles. Never throws
/// because of the text's contents.
bool fromString(const std::string& text, Json::Value& value);

/// Parses the regular file at `path`, of at most `max_bytes`, as `fromString` does. Returns false
/// also when there is no such file or it cannot be read. Never blocks, whatever kind of file `path`
/// names.
bool fromFile(const std::string& path, Json::Value& value, std::size_t max_bytes = kMaxFileBytes);

}  // namespace ZELT::TokenManager
