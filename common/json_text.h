// JSON values as text, with jsoncpp's reader and writer. Nothing is kept between calls but their
// settings, which never change.
#pragma once

#include <json/reader.h>
#include <json/value.h>

#include <cstddef>
#include <memory>
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

/// Why a file could not be read.
struct FileProblem {
  const char* text = nullptr;  ///< lasts; null if there is no problem
  int error = 0;               ///< errno(3) of the system call that failed; 0 if none did
};

/// Reads JSON from files, many of them with one of jsoncpp's readers, which takes longer to make
/// than a short text to parse.
class JsonFileReader {
 public:
  JsonFileReader();

  /// Parses the regular file at `path`, of at most `kMaxFileBytes`, as `fromString` does. A
  /// relative path begins at the open `directory`. Sets `value` only if there is no problem. Never
  /// blocks, whatever kind of file `path` names.
  FileProblem Read(int directory, const char* path, Json::Value& value);

 private:
  std::unique_ptr<Json::CharReader> reader;
  std::string text;
};

/// Reads one file. A relative `path` begins at the working directory. Returns whether there is no
/// problem.
bool fromFile(const std::string& path, Json::Value& value);

}  // namespace ZELT::TokenManager
