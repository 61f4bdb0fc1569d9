// The daemon's responses, as text.
#pragma once

#include <json/value.h>

#include <string>

/// Returns `text` with "?" for each byte that is not printable ASCII. A process chooses its own
/// name: control characters in it must not reach the administrator's terminal.
std::string Printable(std::string text);

/// Returns a table with a line for each of the `tokens` of a "list" response.
std::string TokenTable(const Json::Value& tokens);

/// Returns a token, as "inspect" and "show" describe it, as a table with a line for each grant.
std::string TokenReport(const Json::Value& token);

/// Returns a "status" response as tables.
std::string StatusReport(const Json::Value& status);

/// Returns a "status" response in the text format that Prometheus reads.
std::string PrometheusMetrics(const Json::Value& status);
