// Credentials of the calling thread alone. The kernel keeps uid, gid and the
// supplementary groups per thread; the C library's set*id wrappers copy each
// change to every thread of the process by signalling them all, which costs a
// round of signals per call with hundreds of session threads and would make
// one session's identity every session's. These calls go to the kernel
// directly, so each session thread works under its own user without a lock.
// Every call returns 0, or -1 with errno set, like the system calls.
#pragma once

#include <sys/types.h>

namespace korv {

int thread_setegid(gid_t gid);
int thread_seteuid(uid_t uid);
// The supplementary groups of `user` with `gid` added, as initgroups would
// set them. The list is read from the group database at most once a minute
// per thread and name.
int thread_initgroups(const char* user, gid_t gid);
// `gid` as the only supplementary group.
int thread_setgroups_one(gid_t gid);

}  // namespace korv
