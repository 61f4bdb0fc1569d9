// Users' names and numbers, for administrators.
#pragma once

#include <sys/types.h>

#include <string>

/// Returns the id of the user with this name, or with this decimal id, which nobody needs to have.
/// Throws `std::runtime_error` for anything else.
uid_t UserId(const std::string& user);

/// Returns the user's name, or the decimal id if there is none.
std::string UserName(uid_t uid);
