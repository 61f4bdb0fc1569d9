// Lists of the indexed store for administrators, in pages.
#pragma once

#include <vector>

#include "token_store.h"
#include "user_limits.h"

/// A page of tokens, as rows and as the tokens themselves.
struct Selection {
  std::vector<Holding> holdings;
  Page<TokenRow> page;
};

TokenRow RowOf(const RecordHeader& header, std::string_view service, const std::string& text,
               bool alive);

/// See `TokenStore::List`.
Selection SelectTokens(Database& database, const Tables& tables, const TokenFilter& filter,
                       std::uint64_t after);

/// See `TokenStore::Usage`.
Page<UsageRow> ListUsage(Database& database, const Tables& tables, std::uint64_t after);
