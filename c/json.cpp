#include "json.h"

#include <json/reader.h>

#include <algorithm>
#include <memory>

namespace ZELT::TokenManager {
namespace {

// Never destroyed, so that the calls work while the program exits.
const Json::CharReaderBuilder& Builder() {
  static const Json::CharReaderBuilder& builder = *[] {
    auto* strict = new Json::CharReaderBuilder;
    Json::CharReaderBuilder::strictMode(&strict->settings_);
    strict->settings_["strictRoot"] = false;  // it would allow only arrays and objects
    strict->settings_["skipBom"] = false;
    return strict;
  }();
  return builder;
}

// The length of a sequence of UTF-8 by its first byte, 0 if no sequence begins so.
std::size_t SequenceLength(unsigned char lead) {
  if (lead < 0x80) return 1;
  if (lead < 0xC2 || lead > 0xF4) return 0;
  return lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
}

// Whether the second byte can follow the first: not in an encoding that is too long, of a
// surrogate, or beyond U+10FFFF.
bool IsSecond(unsigned char lead, unsigned char second) {
  switch (lead) {
    case 0xE0:
      return second >= 0xA0;
    case 0xED:
      return second < 0xA0;
    case 0xF0:
      return second >= 0x90;
    case 0xF4:
      return second < 0x90;
    default:
      return true;
  }
}

bool IsSequence(std::string_view bytes) {
  const auto is_continuation = [](char byte) {
    return (static_cast<unsigned char>(byte) & 0xC0U) == 0x80;
  };
  return std::all_of(bytes.begin() + 1, bytes.end(), is_continuation) &&
         (bytes.size() == 1 ||
          IsSecond(static_cast<unsigned char>(bytes[0]), static_cast<unsigned char>(bytes[1])));
}

}  // namespace

bool IsUtf8(std::string_view text) {
  while (!text.empty()) {
    const std::size_t length = SequenceLength(static_cast<unsigned char>(text[0]));
    if (length == 0 || length > text.size() || !IsSequence(text.substr(0, length))) return false;
    text.remove_prefix(length);
  }
  return true;
}

bool ReadStrictly(std::string_view text, Json::Value& value) {
  // jsoncpp accepts invalid UTF-8, and ignores what follows a NUL byte.
  if (!IsUtf8(text) || text.find('\0') != text.npos) return false;
  try {
    const std::unique_ptr<Json::CharReader> reader(Builder().newCharReader());
    return reader->parse(text.data(), text.data() + text.size(), &value, nullptr);
  } catch (const Json::Exception&) {  // nested too deep
    return false;
  }
}

}  // namespace ZELT::TokenManager
