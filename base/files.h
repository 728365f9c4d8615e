// Small calls on real paths that the file commands, listings and quotas share:
// 64-bit sizes, the directory test, mkdir, modification times and modes.
// Each retries EINTR where the call can see it and leaves errno as the system
// set it on failure.
#pragma once

#include <sys/types.h>

#include <ctime>

namespace korv {

// The size of a file in 64 bits (stat follows links), or -1 when it cannot be
// had (errno tells why).
long long i64_file_size(const char* fname);
// 1 if `fname` names a directory (links followed), 0 otherwise.
int lib_stat_isdir(const char* fname);
// 1 if `fname` names a plain file (links followed), 0 otherwise.
int lib_stat_isfile(const char* fname);
// mkdir with `mode`: 0 on success, -1 with errno otherwise.
int lib_mkdir(const char* path, int mode);
// The modification time, or 0 when it cannot be had.
time_t lib_mtime(const char* fname);
// chmod: 0 on success, -1 with errno otherwise.
int lib_chmod(const char* fname, int mode);
// Sets the modification time (and the access time with it). 1, or 0 with errno.
int file_set_modified_time(const char* fname, time_t t);
// This platform keeps no creation time: the change time cannot be set, so this
// sets the same times as file_set_modified_time. 1, or 0 with errno.
int file_set_created_time(const char* fname, time_t t);

}  // namespace korv
