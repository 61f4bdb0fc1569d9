// Lists of the indexed store for administrators, in pages.
#pragma once

#include <vector>

#include "expiry.h"
#include "token_store.h"

/// A page of tokens, as rows and as the tokens themselves.
struct Selection {
  std::vector<Holding> holdings;
  Page<TokenRow> page;
};

/// See `TokenStore::List`.
Selection SelectTokens(Database& database, const Tables& tables, const StoreOptions& options,
                       const TokenFilter& filter, std::uint64_t after);

/// See `TokenStore::Usage`.
Page<UsageRow> ListUsage(Database& database, const Tables& tables, std::uint64_t after);

/// Returns the associated data in the text of a record. Throws `std::runtime_error` if it is none.
Json::Value ReadData(const std::string& text);

TokenRow RowOf(const Record& record, bool alive, const StoreOptions& options);
