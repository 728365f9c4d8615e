// Small calls on real paths: sizes, the directory test, mkdir, times, modes.
#include "base/files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

namespace korv {

long long i64_file_size(const char* fname) {
    struct stat st {};
    if (!fname || ::stat(fname, &st) != 0) return -1;
    return static_cast<long long>(st.st_size);
}

int lib_stat_isdir(const char* fname) {
    struct stat st {};
    return fname && ::stat(fname, &st) == 0 && S_ISDIR(st.st_mode) ? 1 : 0;
}

int lib_stat_isfile(const char* fname) {
    struct stat st {};
    return fname && ::stat(fname, &st) == 0 && S_ISREG(st.st_mode) ? 1 : 0;
}

int lib_mkdir(const char* path, int mode) { return ::mkdir(path, static_cast<mode_t>(mode)) == 0 ? 0 : -1; }

time_t lib_mtime(const char* fname) {
    struct stat st {};
    if (!fname || ::stat(fname, &st) != 0) return 0;
    return st.st_mtime;
}

int lib_chmod(const char* fname, int mode) { return ::chmod(fname, static_cast<mode_t>(mode)) == 0 ? 0 : -1; }

int file_set_modified_time(const char* fname, time_t t) {
    struct timespec ts[2] = {{t, 0}, {t, 0}};
    return ::utimensat(AT_FDCWD, fname, ts, 0) == 0 ? 1 : 0;
}

int file_set_created_time(const char* fname, time_t t) { return file_set_modified_time(fname, t); }

}  // namespace korv
