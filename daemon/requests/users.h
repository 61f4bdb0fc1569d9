// Users' names and numbers, for administrators.
#pragma once

#include <sys/types.h>

#include <string>

/// Returns the id of the user with this name, or the decimal id `user`, even if there is no such
/// user. Throws `std::runtime_error` for any other text.
uid_t UserId(const std::string& user);

/// Returns the user's name, or the decimal id if there is none.
std::string UserName(uid_t uid);
