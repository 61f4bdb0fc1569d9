// The daemon's reader of JSON text against jsoncpp's in its strictest mode.
#include <json/reader.h>
#include <simdjson.h>

#include <algorithm>
#include <memory>
#include <regex>

#include "expect.h"
#include "json_text.h"
#include "strict_json.h"
#include "write_json.h"

namespace {

using namespace ZELT::Fuzz;
using ZELT::TokenManager::toString;

bool ReadByJsoncpp(const std::string& text, Json::Value& value) {
  Json::CharReaderBuilder builder;
  Json::CharReaderBuilder::strictMode(&builder.settings_);
  builder["strictRoot"] = false;
  const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  try {
    return reader->parse(text.data(), text.data() + text.size(), &value, nullptr);
  } catch (const Json::Exception&) {  // nested too deep
    return false;
  }
}

// Whether a piece of text is what only jsoncpp takes: a string with a control character or half a
// surrogate pair; a comment; a comma before a brace; a number with a plus or a needless zero at its
// front, without a digit before or behind the point, beyond 64 bits, or very long.
bool IsLax(const std::string& piece) {
  static const std::regex string(R"("[^]*([\x01-\x1f]|\\u[dD])[^]*)");
  static const std::regex number("-?(0|[1-9][0-9]*)([.][0-9]+)?([eE][-+]?[0-9]+)?");
  if (piece.front() == '"') return std::regex_match(piece, string);
  const bool is_number = piece.find_first_of("+-0123456789") == 0;
  return piece.front() == '/' || piece.front() == ',' ||
         (is_number && (!std::regex_match(piece, number) || piece.size() > 18));
}

// Whether only jsoncpp takes `text`: the above, what is not UTF-8, a byte order mark, and anything
// behind a NUL byte.
bool HoldsLaxPiece(const std::string& text) {
  static const std::regex piece(R"("(\\[^]|[^"\\])*"|,\s*\}|[-+.\w]+|/)");
  if (text.find('\0') != text.npos || text.starts_with("\xEF\xBB\xBF") ||
      !simdjson::validate_utf8(text)) {
    return true;
  }
  return std::any_of(std::sregex_iterator(text.begin(), text.end(), piece), {},
                     [](const std::smatch& found) { return IsLax(found.str()); });
}

// jsoncpp counts a scalar as a level of nesting.
bool IsAtDepthLimit(const std::string& text) {
  return std::count(text.begin(), text.end(), '[') + std::count(text.begin(), text.end(), '{') >=
         kMaxJsonDepth;
}

bool HaveSameTypes(const Json::Value& one, const Json::Value& other) {
  return one.type() == other.type() &&
         std::equal(one.begin(), one.end(), other.begin(), other.end(), HaveSameTypes);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  Json::Value theirs;
  Json::Value ours = "as it was";
  const bool they_read = ReadByJsoncpp(text, theirs);
  if (!ReadStrictJson(text, ours)) {
    Expect(ours == "as it was", "a refused text leaves the value alone");
    Expect(!they_read || HoldsLaxPiece(text), "jsoncpp takes more only in stated ways");
    return 0;
  }
  const std::string written = toString(ours);
  Expect(written == WriteJson(ours), "both write the same");
  Json::Value again;
  Expect(ReadStrictJson(written, again) && HaveSameTypes(ours, again) && toString(again) == written,
         "what was written is read again");
  Expect(they_read || IsAtDepthLimit(text), "jsoncpp takes all but the deepest");
  Expect(!they_read || (HaveSameTypes(ours, theirs) && toString(theirs) == written),
         "both read the same");
  return 0;
}
