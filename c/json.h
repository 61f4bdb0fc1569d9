// JSON that comes from a C program, and answers to it, read strictly.
#pragma once

#include <json/value.h>

#include <string_view>

namespace ZELT::TokenManager {

/// Whether `text` is UTF-8 (RFC 3629).
bool IsUtf8(std::string_view text);

/// Reads exactly one JSON value: no comments, no duplicate names, nothing after it. Returns false
/// for anything else, and leaves `value` unspecified.
bool ReadStrictly(std::string_view text, Json::Value& value);

}  // namespace ZELT::TokenManager
