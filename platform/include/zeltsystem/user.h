// Local users.
#pragma once

#include <sys/types.h>

struct ZELTUser {
  char* name;  ///< null-terminated
};

/// Finds the local user with the id `uid` and stores a newly allocated record in `*user`. Returns 0
/// on success; otherwise `*user` does not change.
int ZELTUserGetLocalByUID(uid_t uid, ZELTUser** user);

/// Frees a record. A null pointer is allowed.
void ZELTUserFree(ZELTUser* user);
