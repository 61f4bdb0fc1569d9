// The strict reader of JSON, for what clients send.
#pragma once

#include <json/value.h>

#include <string>

/// How deep arrays and objects may be nested. Enough for any sensible request. jsoncpp visits,
/// copies and frees values by recursion, so depth costs stack.
constexpr int kMaxJsonDepth = 1000;

/// Maximum characters of a number. Reading more digits than a double can tell apart takes long.
constexpr std::size_t kMaxNumberLength = 1000;

/// Parses `text`, one JSON value (RFC 8259) of any type in UTF-8. Returns false and leaves `value`
/// unchanged for anything else, including duplicate names, nesting deeper than `kMaxJsonDepth`,
/// integers beyond 64 bits, and numbers that are longer than `kMaxNumberLength` or too large for a
/// double.
bool ReadStrictJson(const std::string& text, Json::Value& value);
