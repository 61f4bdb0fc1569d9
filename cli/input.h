// TOKEN and PAYLOAD arguments: the value itself, "@FILE" for what a file holds, or "-" for standard
// input, so that a token need not appear in the list of processes. Only one of them can be standard
// input.
#pragma once

#include <json/value.h>

#include <string>

/// Returns the token that `argument` gives, without a newline at its end. Throws `Failure`.
std::string ReadToken(const std::string& argument);

/// Returns the JSON that `argument` gives. Throws `Failure` if it is not JSON.
Json::Value ReadPayload(const std::string& argument);
