// What a token looks like.
#pragma once

#include <algorithm>
#include <cstddef>
#include <string_view>

namespace ZELT::TokenManager {

constexpr std::size_t kShortestToken = 32;  ///< characters
constexpr std::size_t kLongestToken = 64;

/// Whether `c` can be in a token: A-Z, a-z, 0-9, "-" and "_" can.
constexpr bool IsTokenCharacter(char c) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' ||
         c == '_';
}

/// Whether `text` could be a token.
constexpr bool IsTokenShaped(std::string_view text) {
  return text.size() >= kShortestToken && text.size() <= kLongestToken &&
         std::all_of(text.begin(), text.end(), IsTokenCharacter);
}

}  // namespace ZELT::TokenManager
