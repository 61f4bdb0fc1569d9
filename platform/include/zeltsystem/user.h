// Local users.
#pragma once

#include <sys/types.h>

struct ZELTUser {
  char* name;  ///< zero-terminated
};

/// Finds the local user with the id `uid` and stores a newly allocated record in `*user`. Returns 0
/// on success; otherwise `*user` is left as it was.
int ZELTUserGetLocalByUID(uid_t uid, ZELTUser** user);

/// Releases a record; a null pointer is no error.
void ZELTUserFree(ZELTUser* user);
