#include "write_json.h"

#include <algorithm>
#include <string_view>
#include <utility>

#include "json_member.h"

namespace {

void Write(const Json::Value& value, std::string& text);

bool IsEscaped(char c) { return static_cast<unsigned char>(c) < ' ' || c == '"' || c == '\\'; }

void WriteEscaped(char c, std::string& text) {
  constexpr std::string_view kEscaped = "\"\\\b\f\n\r\t";
  constexpr std::string_view kLetters = "\"\\bfnrt";
  constexpr std::string_view kDigits = "0123456789abcdef";
  const auto known = kEscaped.find(c);
  const auto code = static_cast<unsigned char>(c);
  if (known != kEscaped.npos) {
    text += {'\\', kLetters[known]};
  } else {
    text += {'\\', 'u', '0', '0', kDigits[code >> 4U], kDigits[code & 0xFU]};
  }
}

void WriteString(std::string_view string, std::string& text) {
  text += '"';
  for (;;) {
    const auto special = std::find_if(string.begin(), string.end(), IsEscaped);
    text.append(string.begin(), special);
    if (special == string.end()) break;
    WriteEscaped(*special, text);
    string = {special + 1, string.end()};
  }
  text += '"';
}

void WriteArray(const Json::Value& array, std::string& text) {
  char before = '[';
  // NOLINTNEXTLINE(modernize-loop-convert): an iterator skips gaps, which read as null
  for (Json::ArrayIndex index = 0; index < array.size(); ++index) {
    text += std::exchange(before, ',');
    Write(array[index], text);
  }
  text += array.empty() ? "[]" : "]";
}

void WriteObject(const Json::Value& object, std::string& text) {
  char before = '{';
  for (auto member = object.begin(); member != object.end(); ++member) {
    text += std::exchange(before, ',');
    const char* end = nullptr;
    const char* begin = member.memberName(&end);
    WriteString({begin, end}, text);
    text += ':';
    Write(*member, text);
  }
  text += object.empty() ? "{}" : "}";
}

void Write(const Json::Value& value, std::string& text) {
  switch (value.type()) {
    case Json::nullValue:
      text += "null";
      break;
    case Json::stringValue:
      return WriteString(ZELT::TokenManager::StringView(value), text);
    case Json::arrayValue:
      return WriteArray(value, text);
    case Json::objectValue:
      return WriteObject(value, text);
    default:
      text += value.asString();
  }
}

}  // namespace

std::string WriteJson(const Json::Value& value) {
  std::string text;
  Write(value, text);
  return text;
}
