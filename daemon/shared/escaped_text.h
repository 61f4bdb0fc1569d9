// Untrusted text for a terminal or a log.
#pragma once

#include <span>
#include <string>
#include <string_view>

enum class Quotes { kKept, kEscaped };

/// Writes `text` to `buffer`, with everything escaped that a terminal obeys, that makes text look
/// like other text, or for which journalctl(1) would show the whole line as "blob data": control
/// characters, invisible ones, bidirectional controls, line separators, noncharacters, and bytes
/// that are not UTF-8. With `kEscaped`, quotation marks and backslashes as well. Returns what was
/// written: as many whole characters as fit. Throws nothing and allocates nothing.
std::string_view Escape(std::string_view text, std::span<char> buffer,
                        Quotes quotes = Quotes::kKept) noexcept;

/// Returns the whole of `text`, escaped.
std::string Escaped(std::string_view text);
