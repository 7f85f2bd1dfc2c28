// Processes with the rights of somebody else.
#ifndef TESTS_SUPPORT_USER_RIGHTS_H_
#define TESTS_SUPPORT_USER_RIGHTS_H_

#include <sys/types.h>

namespace ZorvTest {

// Gives the calling process, which is root's and a child of the test, the rights of an ordinary
// user without further groups. Ends it with 126 when that fails.
void BecomeUser(uid_t user);

// Makes the calling process, likewise, root of a new user namespace in which nobody else is, and
// which `user` is seen as from outside. Ends it with 126 when that fails.
void BecomeRootOfUserNamespace(uid_t user);

}  // namespace ZorvTest

#endif  // TESTS_SUPPORT_USER_RIGHTS_H_
