#include "escaped_text.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <optional>

namespace {

constexpr std::size_t kLongestForm = 10;  // bytes: \U000e0001

// Code points, from the first to the last.
struct Range {
  char32_t first;
  char32_t last;
};

constexpr std::array kUnprinted = {
    Range{0, 0x1F},        Range{0x7F, 0x9F},     Range{0xAD, 0xAD},       Range{0x61C, 0x61C},
    Range{0x200B, 0x200F}, Range{0x2028, 0x202E}, Range{0x2060, 0x206F},   Range{0xFDD0, 0xFDEF},
    Range{0xFEFF, 0xFEFF}, Range{0xFFF9, 0xFFFB}, Range{0xE0000, 0xE0FFF},
};

bool IsPrinted(char32_t code) {
  // The last two code points of each plane are noncharacters.
  return (code & 0xFFFEU) != 0xFFFEU &&
         std::none_of(kUnprinted.begin(), kUnprinted.end(), [code](const Range& range) {
           return range.first <= code && code <= range.last;
         });
}

// Length of a sequence that begins with `byte` (RFC 3629); 0 if none does.
std::size_t SequenceLength(unsigned char byte) {
  if (byte < 0x80) return 1;
  if (byte < 0xC2 || byte > 0xF4) return 0;
  return byte < 0xE0 ? 2 : byte < 0xF0 ? 3 : 4;
}

// The character at the front of `text`. None if there is no valid UTF-8.
std::optional<char32_t> FirstCharacter(std::string_view text) {
  constexpr std::array<char32_t, 5> kSmallest = {0, 0, 0x80, 0x800, 0x10000};
  const auto first = static_cast<unsigned char>(text[0]);
  const std::size_t length = SequenceLength(first);
  if (length == 0 || length > text.size()) return std::nullopt;
  char32_t code = length == 1 ? first : first & (0x7FU >> length);
  for (const char c : text.substr(1, length - 1)) {
    const auto byte = static_cast<unsigned char>(c);
    if ((byte & 0xC0U) != 0x80U) return std::nullopt;
    code = code << 6U | (byte & 0x3FU);
  }
  const bool is_surrogate = code >= 0xD800 && code <= 0xDFFF;
  if (code < kSmallest.at(length) || is_surrogate || code > 0x10FFFF) return std::nullopt;
  return code;
}

using Form = std::array<char, kLongestForm + 1>;

// Returns the escape of a character, or an empty text for one that is printed as it is. `byte` is
// its first one, or, without a `code`, one that is not UTF-8.
Form EscapeOf(std::optional<char32_t> code, char byte, Quotes quotes) {
  Form form{};
  if (!code) {
    std::snprintf(form.data(), form.size(), "\\x%02x", static_cast<unsigned char>(byte));
  } else if (!IsPrinted(*code)) {
    std::snprintf(form.data(), form.size(), *code > 0xFFFF ? "\\U%08x" : "\\u%04x",
                  static_cast<unsigned int>(*code));
  } else if (quotes == Quotes::kEscaped && (byte == '"' || byte == '\\')) {
    form = {'\\', byte};
  }
  return form;
}

}  // namespace

std::string_view Escape(std::string_view text, std::span<char> buffer, Quotes quotes) noexcept {
  std::size_t size = 0;
  while (!text.empty()) {
    const std::optional<char32_t> code = FirstCharacter(text);
    const Form escape = EscapeOf(code, text[0], quotes);
    const std::size_t length = code ? SequenceLength(static_cast<unsigned char>(text[0])) : 1;
    const std::string_view form = escape[0] != '\0' ? escape.data() : text.substr(0, length);
    if (form.size() > buffer.size() - size) break;
    size += form.copy(buffer.data() + size, form.size());
    text.remove_prefix(length);
  }
  return {buffer.data(), size};
}

std::string Escaped(std::string_view text) {
  std::string escaped(kLongestForm * text.size(), '\0');
  escaped.resize(Escape(text, escaped).size());
  return escaped;
}
