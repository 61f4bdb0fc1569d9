#include "zeltsystem/user.h"

#include <pwd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "lookup_buffer.h"

int ZELTUserGetLocalByUID(uid_t uid, ZELTUser** user) {
  passwd entry{};
  passwd* found = nullptr;
  LookupBuffer buffer;
  int error = 0;
  do {
    error = getpwuid_r(uid, &entry, buffer.Data(), buffer.Size(), &found);
  } while (error == ERANGE && buffer.Grow());
  if (found == nullptr) return -1;

  char* name = strdup(found->pw_name);
  if (name == nullptr) return -1;
  *user = new ZELTUser{name};
  return 0;
}

void ZELTUserFree(ZELTUser* user) {
  if (user == nullptr) return;
  std::free(user->name);  // NOLINT(cppcoreguidelines-no-malloc): from strdup(3)
  delete user;
}
