#include "escaped_text.h"

#include <array>
#include <cstdio>

namespace {

// Length of the UTF-8 sequence at the front of `text` (RFC 3629), 0 if there is none.
std::size_t SequenceLength(std::string_view text) {
  const auto byte = [text](std::size_t i) { return static_cast<unsigned char>(text[i]); };
  const std::size_t length = byte(0) < 0x80                      ? 1
                             : byte(0) >= 0xC2 && byte(0) < 0xE0 ? 2
                             : byte(0) >= 0xE0 && byte(0) < 0xF0 ? 3
                             : byte(0) >= 0xF0 && byte(0) < 0xF5 ? 4
                                                                 : 0;
  if (length > text.size()) return 0;
  for (std::size_t i = 1; i < length; ++i) {
    if ((byte(i) & 0xC0) != 0x80) return 0;
  }
  return length;
}

// The code point of a valid sequence.
unsigned int CodePoint(std::string_view sequence) {
  if (sequence.size() == 1) return static_cast<unsigned char>(sequence[0]);
  unsigned int code = static_cast<unsigned char>(sequence[0]) & (0x7FU >> sequence.size());
  for (const char next : sequence.substr(1)) {
    code = code << 6U | (static_cast<unsigned char>(next) & 0x3FU);
  }
  return code;
}

// Characters that control a terminal, or make text look like other text.
bool IsControl(unsigned int code) {
  return code < 0x20 || (code >= 0x7F && code < 0xA0) || code == 0x061C ||
         (code >= 0x200E && code <= 0x200F) || (code >= 0x2028 && code <= 0x202E) ||
         (code >= 0x2066 && code <= 0x2069);
}

}  // namespace

std::string Escaped(std::string_view text) {
  std::string escaped;
  std::array<char, 8> code{};
  while (!text.empty()) {
    const std::size_t length = SequenceLength(text);
    if (length == 0) {
      std::snprintf(code.data(), code.size(), "\\x%02x", static_cast<unsigned char>(text[0]));
    } else if (IsControl(CodePoint(text.substr(0, length)))) {
      std::snprintf(code.data(), code.size(), "\\u%04x", CodePoint(text.substr(0, length)));
    }
    escaped += code[0] != '\0' ? std::string_view(code.data()) : text.substr(0, length);
    code[0] = '\0';
    text.remove_prefix(length == 0 ? 1 : length);
  }
  return escaped;
}
