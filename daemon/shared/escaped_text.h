// Untrusted text for a terminal or a log.
#pragma once

#include <string>
#include <string_view>

/// Returns `text` with control characters, U+0080 to U+009F, DEL, bidirectional controls, line
/// separators and bytes that are not UTF-8 escaped.
std::string Escaped(std::string_view text);
