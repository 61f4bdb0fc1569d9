// Checks of the shape of JSON that comes from outside. A failed check throws `std::runtime_error`
// with a text that begins with `where`, which identifies the error to people and programs: "<where>
// invalid type of \"<name>\", String expected".
#pragma once

#include <json/value.h>

#include <string>
#include <string_view>

namespace ZELT::TokenManager {

// Each returns the member `name` of `object`, and throws unless `object` is an object and the
// member has the type. Texts are views into `object`.
std::string_view StringMember(const Json::Value& object, std::string_view name, const char* where);
int IntMember(const Json::Value& object, std::string_view name, const char* where);
const Json::Value& ObjectMember(const Json::Value& object, std::string_view name,
                                const char* where);
const Json::Value& ArrayMember(const Json::Value& object, std::string_view name, const char* where);

/// Throws "<where> invalid type, Array expected" unless `value` is an array.
void ExpectArray(const Json::Value& value, const char* where);

/// Throws "<where> invalid type, String expected" unless `value` is a string, and returns a view
/// into it.
std::string_view ExpectString(const Json::Value& value, const char* where);

/// Returns the member `name`, or null when `object` is not an object or has no such member.
const Json::Value& MemberOrNull(const Json::Value& object, std::string_view name);

/// Returns the text of a string value; asString would copy it.
std::string_view StringView(const Json::Value& string);

// Conversions that never throw. They return the empty string or false for values that cannot be
// converted.
std::string TextOf(const Json::Value& value);
bool TruthOf(const Json::Value& value);

}  // namespace ZELT::TokenManager
