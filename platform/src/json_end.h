// Where a JSON value ends in a stream.
#pragma once

#include <algorithm>
#include <string_view>

namespace zeltdaemon {

/// Looks for the end of a JSON value in pieces of text. Does not check that it is valid.
class JsonEnd {
 public:
  /// Whether the value ends in the next `piece`. A number or a word ends at the whitespace after
  /// it.
  bool IsIn(std::string_view piece) {
    return std::any_of(piece.begin(), piece.end(), [this](char c) { return Ends(c); });
  }

 private:
  bool Ends(char c) {
    if (is_string) return EndsInString(c);
    if (c == ' ' || c == '\t' || c == '\r' || c == '\n') return has_begun && depth == 0;
    has_begun = true;
    is_string = c == '"';
    if (c == '{' || c == '[') ++depth;
    if (c != '}' && c != ']') return false;
    return --depth <= 0;
  }

  bool EndsInString(char c) {
    is_string = is_escaped || c != '"';
    is_escaped = !is_escaped && c == '\\';
    return !is_string && depth == 0;
  }

  int depth = 0;
  bool has_begun = false;
  bool is_string = false;
  bool is_escaped = false;
};

}  // namespace zeltdaemon
