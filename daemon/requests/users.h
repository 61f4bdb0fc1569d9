// Users' names and numbers, for administrators.
#pragma once

#include <sys/types.h>

#include <string>

/// Returns the id of the user with this name, or with this decimal id even if nobody has it. Throws
/// `std::runtime_error` for anything else.
uid_t UserId(const std::string& user);

/// Returns the user's name; without one, the decimal id.
std::string UserName(uid_t uid);
