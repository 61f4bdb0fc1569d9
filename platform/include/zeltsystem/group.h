// Groups of local users, as a list of names that is emptied from its front.
#pragma once

struct QLIBCSzList;

/// Returns a newly allocated list of the names of the groups that the local user `user_name`
/// belongs to, or null when the user is unknown or the lookup fails. `scope` must be 1: the primary
/// group and all supplementary ones. A user's groups are remembered for a second at most, and not
/// beyond a change of /etc/passwd, /etc/group or /etc/nsswitch.conf. Any number of threads may call
/// this.
QLIBCSzList* QLIBGroupInfoListGet(const char* user_name, int scope);

/// Removes the first name and returns it, or null when the list is empty. The text belongs to the
/// list.
const char* QLIBCSzListShift(QLIBCSzList* list);

/// Frees a list. A null pointer is allowed.
void QLIBCSzListFree(QLIBCSzList* list);
