// The daemon's services. This is the only place where a service is registered.
#pragma once

#include <array>
#include <memory>
#include <span>

#include "zelttokenmanager/token_manager.h"

/// A service, and what `zelttokenmgrd --check` needs to know about it. A package's grants of the
/// service are an array of objects.
struct Service {
  std::shared_ptr<ZELT::TokenManager::TokenService> (*make)();

  /// The payload, as JSON text, of a well-formed issue request that no grant satisfies, so that
  /// `Issue` examines every grant.
  const char* probe;

  /// The members of a grant that a request names. Of grants that agree in them, the first applies.
  std::array<const char*, 2> keys;

  /// The member of a grant that holds a permitted list.
  const char* permitted_list;
};

std::span<const Service> Services();

/// Adds all services to `manager`.
void AddServices(ZELT::TokenManager::TokenManager& manager);
