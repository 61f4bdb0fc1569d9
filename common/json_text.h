// JSON values as text. One constant configuration serves the whole system.
#pragma once

#include <json/value.h>

#include <string>

namespace ZELT::TokenManager {

/// Returns `value` as one line without a newline; characters outside ASCII stand as they are.
std::string toString(const Json::Value& value);

/// Parses `text`, which may have any type at its root. Returns false, leaving `value` as it was,
/// for anything that is not exactly one JSON value: comments, trailing commas, trailing text,
/// duplicate keys, NUL bytes and nesting deeper than 1000 levels included. Never throws for what
/// the text holds.
bool fromString(const std::string& text, Json::Value& value);

/// Parses the regular file at `path`, of at most 4 MiB, as `fromString` does. Returns false also
/// when there is no such file or it cannot be read. Never waits, whatever stands at `path`.
bool fromFile(const std::string& path, Json::Value& value);

}  // namespace ZELT::TokenManager
