// TOKEN and PAYLOAD arguments: the value itself, "@FILE" for what a file holds, or "-" for standard
// input, so that a token need not stand in the list of processes. Standard input serves one of
// them.
#pragma once

#include <json/value.h>

#include <string>

/// Returns the token that `argument` gives, less a newline at its end. Throws `Failure`.
std::string ReadToken(const std::string& argument);

/// Returns the JSON that `argument` gives. Throws `Failure` when it is none.
Json::Value ReadPayload(const std::string& argument);
