// TOKEN and PAYLOAD arguments: the value itself, "@FILE" to read a file, or "-" to read standard
// input. A token in a file does not appear in the list of processes. Only one of the two can be
// standard input.
#pragma once

#include <json/value.h>

#include <string>

/// Returns the token that `argument` gives, without a newline at its end. Throws `Failure`.
std::string ReadToken(const std::string& argument);

/// Returns the JSON that `argument` gives. Throws `Failure` if it is not JSON.
Json::Value ReadPayload(const std::string& argument);
