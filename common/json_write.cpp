#include <json/writer.h>
#include <simdjson.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <stdexcept>
#include <string_view>
#include <utility>

#include "json_member.h"
#include "json_text.h"

namespace ZELT::TokenManager {
namespace {

// jsoncpp's writer takes several times as long, and writes some values that no reader accepts.
class Writer {
 public:
  // Writes a value whose arrays and objects may be nested `room` deep.
  void Write(const Json::Value& value, int room) {
    switch (value.type()) {
      case Json::nullValue:
        text += "null";
        break;
      case Json::booleanValue:
        text += value.asBool() ? "true" : "false";
        break;
      case Json::intValue:
        return WriteInteger(value.asInt64());
      case Json::uintValue:
        return WriteInteger(value.asUInt64());
      case Json::realValue:
        return WriteDouble(value.asDouble());
      case Json::stringValue:
        return WriteString(StringView(value));
      case Json::arrayValue:
        return WriteArray(value, room);
      case Json::objectValue:
        return WriteObject(value, room);
    }
  }

  std::string Take() {
    if (!simdjson::validate_utf8(text)) {
      throw std::runtime_error("json_text.cpp:68 JSON text must be UTF-8");
    }
    return std::move(text);
  }

 private:
  template <typename Integer>
  void WriteInteger(Integer number) {
    std::array<char, 24> digits{};  // more than 64 bits need
    const auto end = std::to_chars(digits.begin(), digits.end(), number).ptr;
    text.append(digits.begin(), end);
  }

  void WriteDouble(double number) {
    if (!std::isfinite(number)) {
      throw std::runtime_error("json_text.cpp:61 JSON has no infinite and undefined numbers");
    }
    text += Json::valueToString(number);
  }

  void WriteString(std::string_view string) {
    text += '"';
    for (const char* begin = string.data();;) {
      const char* end = string.data() + string.size();
      const char* special = std::find_if(begin, end, IsEscaped);
      text.append(begin, special);
      if (special == end) break;
      WriteEscaped(*special);
      begin = special + 1;
    }
    text += '"';
  }

  static bool IsEscaped(char c) {
    return static_cast<unsigned char>(c) < ' ' || c == '"' || c == '\\';
  }

  void WriteEscaped(char c) {
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

  // Arrays in jsoncpp may have gaps, which read as null.
  void WriteArray(const Json::Value& array, int room) {
    ExpectRoom(room);
    text += '[';
    for (Json::ArrayIndex index = 0; index < array.size(); ++index) {
      if (index > 0) text += ',';
      Write(array[index], room - 1);
    }
    text += ']';
  }

  void WriteObject(const Json::Value& object, int room) {
    ExpectRoom(room);
    char before = '{';
    for (auto member = object.begin(); member != object.end(); ++member) {
      text += std::exchange(before, ',');
      const char* end = nullptr;
      const char* begin = member.memberName(&end);
      WriteString({begin, end});
      text += ':';
      Write(*member, room - 1);
    }
    text += object.empty() ? "{}" : "}";
  }

  static void ExpectRoom(int room) {
    if (room > 0) return;
    throw std::runtime_error("json_text.cpp:54 JSON may be nested 1,000 deep at most");
  }

  std::string text;
};

}  // namespace

std::string toString(const Json::Value& value) {
  Writer writer;
  writer.Write(value, kMaxJsonDepth);
  return writer.Take();
}

}  // namespace ZELT::TokenManager
