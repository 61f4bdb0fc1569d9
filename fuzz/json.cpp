// The daemon's reader of JSON text against jsoncpp's in its strictest mode.
#include <json/reader.h>

#include <algorithm>
#include <memory>

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
