#include "strict_json.h"

#include <simdjson.h>

#include <algorithm>
#include <array>
#include <memory>
#include <new>
#include <string_view>

namespace {

namespace dom = simdjson::dom;

// Making a parser takes longer than parsing, so each thread keeps one.
thread_local std::unique_ptr<dom::parser> kept_parser;

// Returns the end of the string that begins at `begin`.
std::size_t EndOfString(std::string_view text, std::size_t begin) {
  std::size_t end = text.find_first_of("\"\\", begin + 1);
  while (end != text.npos && text[end] == '\\') end = text.find_first_of("\"\\", end + 2);
  return end == text.npos ? text.size() : end + 1;
}

bool HoldsLongNumber(std::string_view text) {
  for (std::size_t begin = 0; begin + kMaxNumberLength < text.size();) {
    std::size_t end = std::min(text.find_first_not_of("-+.0123456789eE", begin), text.size());
    if (end - begin > kMaxNumberLength) return true;
    if (end == begin) end = text[begin] == '"' ? EndOfString(text, begin) : begin + 1;
    begin = end;
  }
  return false;
}

// Names used in requests, records and grants. jsoncpp copies all other names twice.
constexpr std::array<std::string_view, 15> kKnownNames{
    "type",  "service", "token", "payload", "api", "method",    "runner",    "prefix",
    "owner", "action",  "args",  "task",    "pid", "requester", "created_at"};

Json::Value& Member(Json::Value& object, std::string_view name) {
  const auto known = std::find(kKnownNames.begin(), kKnownNames.end(), name);
  if (known != kKnownNames.end()) return object[Json::StaticString(known->data())];
  return *object.demand(name.data(), name.data() + name.size());
}

bool Copy(const dom::element& from, int room, Json::Value& to);

bool CopyArray(const dom::array& from, int room, Json::Value& to) {
  if (room == 0) return false;
  to = Json::Value(Json::arrayValue);
  return std::all_of(from.begin(), from.end(), [&](const dom::element& element) {
    return Copy(element, room - 1, to.append({}));
  });
}

bool CopyObject(const dom::object& from, int room, Json::Value& to) {
  if (room == 0) return false;
  to = Json::Value(Json::objectValue);
  Json::ArrayIndex count = 0;
  return std::all_of(from.begin(), from.end(), [&](const dom::key_value_pair& member) {
    Json::Value& value = Member(to, member.key);
    return to.size() == ++count && Copy(member.value, room - 1, value);
  });
}

Json::Value Scalar(const dom::element& from) {
  switch (from.type()) {
    case dom::element_type::INT64:
      return Json::Int64{from.get_int64().value_unsafe()};
    case dom::element_type::UINT64:
      return Json::UInt64{from.get_uint64().value_unsafe()};
    case dom::element_type::DOUBLE:
      return from.get_double().value_unsafe();
    case dom::element_type::BOOL:
      return from.get_bool().value_unsafe();
    case dom::element_type::STRING: {
      const std::string_view text = from.get_string().value_unsafe();
      return {text.data(), text.data() + text.size()};
    }
    default:
      return {};
  }
}

// The Copy functions copy what the parser has read. They return false for input that only the
// parser accepts: duplicate names, and nesting deeper than `room`.
bool Copy(const dom::element& from, int room, Json::Value& to) {
  switch (from.type()) {
    case dom::element_type::ARRAY:
      return CopyArray(from.get_array().value_unsafe(), room, to);
    case dom::element_type::OBJECT:
      return CopyObject(from.get_object().value_unsafe(), room, to);
    default:
      to = Scalar(from);
      return true;
  }
}

bool Read(dom::parser& parser, const std::string& text, Json::Value& value) {
  dom::element root;
  const simdjson::error_code error = parser.parse(text).get(root);
  if (error == simdjson::MEMALLOC) throw std::bad_alloc();
  return error == simdjson::SUCCESS && Copy(root, kMaxJsonDepth, value);
}

}  // namespace

bool ReadStrictJson(const std::string& text, Json::Value& value) {
  if (HoldsLongNumber(text)) return false;
  // A parser that could not get memory cannot be used again. An exception destroys it here.
  std::unique_ptr<dom::parser> parser = std::move(kept_parser);
  if (!parser) parser = std::make_unique<dom::parser>();
  Json::Value read;
  const bool is_valid = Read(*parser, text, read);
  kept_parser = std::move(parser);
  if (is_valid) value.swap(read);
  return is_valid;
}
