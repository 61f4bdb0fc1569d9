#include "token_store.h"

#include "json_member.h"

using ZELT::TokenManager::MemberOrNull;

namespace {

[[noreturn]] void Refuse() { throw std::runtime_error("the text store cannot do this"); }

}  // namespace

Json::ArrayIndex GrantCount(const Json::Value& payload) {
  return payload.isArray() ? payload.size() : 1;
}

void ExpectSmallToken(const Json::Value& data, std::string_view text) {
  constexpr std::size_t kMaxTextBytes = 64U << 10;  // each validation parses it
  const Json::ArrayIndex grants = GrantCount(MemberOrNull(data, "payload"));
  if (grants > kMaxGrants) {
    throw std::runtime_error("the token would hold " + std::to_string(grants) +
                             " grants, more than " + std::to_string(kMaxGrants));
  }
  if (text.size() > kMaxTextBytes) {
    throw std::runtime_error("the record of the token would have " + std::to_string(text.size()) +
                             " bytes, more than " + std::to_string(kMaxTextBytes));
  }
}

void TokenStore::ExpireAfter(std::chrono::seconds /*lifetime*/) { Refuse(); }
Page<TokenRow> TokenStore::List(const TokenFilter& /*filter*/, std::uint64_t /*after*/) {
  Refuse();
}
Page<TokenRow> TokenStore::Drop(const TokenFilter& /*filter*/, std::uint64_t /*after*/) {
  Refuse();
}
Page<UsageRow> TokenStore::Usage(std::uint64_t /*after*/) { Refuse(); }
