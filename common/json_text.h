// JSON values as text, with jsoncpp's reader and writer. Nothing is kept between calls but their
// settings, which never change.
#pragma once

#include <json/value.h>

#include <cstddef>
#include <string>

namespace ZELT::TokenManager {

/// Limits the memory that a file written by another user can make this process use: the files of
/// packages and their installed configurations may have 4 MiB each.
constexpr std::size_t kMaxFileBytes = 4U << 20;

/// Returns jsoncpp's text of `value` on one line, without a newline. Bytes outside ASCII are
/// written as they are.
std::string toString(const Json::Value& value);

/// Parses `text` as jsoncpp's `CharReaderBuilder` does with its defaults, which accepts more than
/// RFC 8259: comments, for example, and anything after the value. Returns false and leaves `value`
/// unchanged for anything else, including nesting deeper than 1,000.
bool fromString(const std::string& text, Json::Value& value);

/// Parses the regular file at `path`, of at most `kMaxFileBytes`, as `fromString` does. Returns
/// false also when there is no such file or it cannot be read. Never blocks, whatever kind of file
/// `path` names.
bool fromFile(const std::string& path, Json::Value& value);

}  // namespace ZELT::TokenManager
