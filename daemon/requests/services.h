// The services that the daemon offers: the one place where a service is registered.
#pragma once

#include <memory>
#include <span>

#include "zelttokenmanager/token_manager.h"

/// A service, and what `zelttokenmgrd --check` needs to know of it. A package's grants of the
/// service are an array of objects.
struct Service {
  std::shared_ptr<ZELT::TokenManager::TokenService> (*make)();

  /// The payload, as JSON text, of an issue request that is well formed and that no grant
  /// satisfies. So `Issue` looks at every grant.
  const char* probe;

  /// The member of a grant that holds a permitted list.
  const char* permitted_list;
};

std::span<const Service> Services();

/// Adds all of them to `manager`.
void AddServices(ZELT::TokenManager::TokenManager& manager);
