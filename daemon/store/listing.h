// What an administrator sees of the indexed store, in pages.
#pragma once

#include <vector>

#include "token_store.h"
#include "user_limits.h"

/// A page of tokens: its rows, and the tokens that these are of.
struct Selection {
  std::vector<Holding> holdings;
  Page page;
};

/// As of `TokenStore::List`.
Selection SelectTokens(Database& database, const Tables& tables, const TokenFilter& filter,
                       std::uint64_t after);

/// As of `TokenStore::Usage`.
Page ListUsage(Database& database, const Tables& tables, std::uint64_t after);
