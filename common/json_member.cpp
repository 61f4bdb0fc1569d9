#include "json_member.h"

#include <stdexcept>

namespace ZELT::TokenManager {
namespace {

void ExpectMember(bool of_type, std::string_view name, const char* type, const char* where) {
  if (of_type) return;
  throw std::runtime_error(std::string(where) + " invalid type of \"" + std::string(name) + "\", " +
                           type + " expected");
}

void ExpectValue(bool of_type, const char* type, const char* where) {
  if (of_type) return;
  throw std::runtime_error(std::string(where) + " invalid type, " + type + " expected");
}

}  // namespace

std::string_view StringMember(const Json::Value& object, std::string_view name, const char* where) {
  const Json::Value& member = MemberOrNull(object, name);
  ExpectMember(member.isString(), name, "String", where);
  return StringView(member);
}

int IntMember(const Json::Value& object, std::string_view name, const char* where) {
  const Json::Value& member = MemberOrNull(object, name);
  ExpectMember(member.isInt(), name, "Int", where);
  return member.asInt();
}

const Json::Value& ObjectMember(const Json::Value& object, std::string_view name,
                                const char* where) {
  const Json::Value& member = MemberOrNull(object, name);
  ExpectMember(member.isObject(), name, "Object", where);
  return member;
}

const Json::Value& ArrayMember(const Json::Value& object, std::string_view name,
                               const char* where) {
  const Json::Value& member = MemberOrNull(object, name);
  ExpectMember(member.isArray(), name, "Array", where);
  return member;
}

void ExpectArray(const Json::Value& value, const char* where) {
  ExpectValue(value.isArray(), "Array", where);
}

std::string_view ExpectString(const Json::Value& value, const char* where) {
  ExpectValue(value.isString(), "String", where);
  return StringView(value);
}

const Json::Value& MemberOrNull(const Json::Value& object, std::string_view name) {
  // jsoncpp throws its own errors when it is asked for a member of an array or a scalar.
  const Json::Value* member =
      object.isObject() ? object.find(name.data(), name.data() + name.size()) : nullptr;
  return member != nullptr ? *member : Json::Value::nullSingleton();
}

std::string_view StringView(const Json::Value& string) {
  const char* begin = nullptr;
  const char* end = nullptr;
  string.getString(&begin, &end);
  return {begin, end};
}

std::string TextOf(const Json::Value& value) {
  return value.isConvertibleTo(Json::stringValue) ? value.asString() : std::string();
}

bool TruthOf(const Json::Value& value) {
  return value.isConvertibleTo(Json::booleanValue) && value.asBool();
}

}  // namespace ZELT::TokenManager
