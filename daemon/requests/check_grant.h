// What a well-formed grant says that its author hardly means.
#pragma once

#include <json/value.h>

#include <string>

/// Returns what is odd about the permitted list that `grant`, an object, has under `list_name`:
/// a misspelt name, a string that does not admit whom it names, or an unknown user or group. Empty
/// if nothing is.
std::string OddList(const Json::Value& grant, const std::string& list_name);
