// Uploads without a copy through user space: a kernel pipe carries the bytes
// from a plain (not TLS) socket into the file, so a receive neither fills a
// buffer of the session's nor stops at its size. The download side of this is
// sendfile (tcp_sendfile).
#pragma once

#include <sys/types.h>

#include <cstddef>

#include "net/tcp.h"

namespace korv {

class SpliceIn {
public:
    // Makes the pipe, as large as the system allows up to kPipeBytes.
    SpliceIn();
    ~SpliceIn();
    SpliceIn(const SpliceIn&) = delete;
    SpliceIn& operator=(const SpliceIn&) = delete;

    // False when no pipe could be made: read into a buffer instead.
    bool ok() const { return pr_ >= 0; }

    // Moves what `c` has, up to the pipe's size, into `fd` at its offset,
    // waiting up to `msecs` for the first byte. The bytes taken off the
    // connection; 0 at the peer's close; -1 on a failure or when nothing came
    // in time, recorded in the channel as a timed read records it (so
    // tcp_blocking_error tells a wait from a failure). `*written` is what
    // reached the file; when less than the result, `*file_err` holds the
    // file's errno (0 for a short write without one).
    long long move(Chan* c, int fd, int msecs, long long* written, int* file_err);

    static constexpr int kPipeBytes = 1 << 20;

private:
    // Reads up to `n` bytes out of the pipe and writes them to `fd`.
    ssize_t copy_to_file(int fd, size_t n);

    int pr_ = -1, pw_ = -1;  // the pipe's read and write ends
    bool copy_out_ = false;  // the file takes no splice
    int size_ = 0;           // what the pipe holds at most
};

}  // namespace korv
