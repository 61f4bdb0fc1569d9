// A permitted list and an identity. The first line of the input is the identity, the second the
// requester, the rest the list as JSON text.
#include <algorithm>
#include <optional>
#include <stdexcept>

#include "json_text.h"
#include "support.h"
#include "zelttokenmanager/utils.h"

namespace {

using namespace ZELT::Fuzz;

// Returns nothing when the list is refused.
std::optional<bool> Ask(const std::string& identity, const Json::Value& permitted,
                        const std::string& requester) {
  try {
    return ZELT::TokenManager::IsIdentityInPermittedList(identity, permitted, requester);
  } catch (const std::runtime_error&) {
    return std::nullopt;
  }
}

// A group is admitted when it is named before anything that is not a name.
std::optional<bool> ExpectedForGroup(const std::string& group, const Json::Value& permitted) {
  for (const Json::Value& name : permitted) {
    if (!name.isString()) return std::nullopt;
    if (name.asString() == group) return true;
  }
  return false;
}

// The groups of a user are the machine's affair; but nobody is admitted whom nothing names.
bool MayAdmit(const std::string& user, const Json::Value& permitted) {
  return std::any_of(permitted.begin(), permitted.end(), [&](const Json::Value& name) {
    return name.isString() && (name.asString() == user || name.asString().starts_with("@"));
  });
}

}  // namespace

int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) { return 0; }

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string_view rest(reinterpret_cast<const char*>(data), size);
  const std::string identity = CutLine(rest);
  const std::string requester = CutLine(rest);
  Json::Value permitted;
  if (!ZELT::TokenManager::fromString(std::string(rest), permitted)) return 0;

  const auto answer = Ask(identity, permitted, requester);
  if (permitted.isString()) {
    Expect(answer == (permitted.asString() == "any" || identity == requester), "a word");
  } else if (!permitted.isArray()) {
    Expect(!answer, "a list of no known shape is refused");
  } else if (identity.starts_with("@")) {
    Expect(answer == ExpectedForGroup(identity, permitted), "a group");
  } else {
    Expect(!answer.value_or(false) || MayAdmit(identity, permitted), "a user");
  }
  return 0;
}
