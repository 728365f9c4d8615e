// The upload pipe: socket to pipe, pipe to file, both in the kernel.
#include "net/splice.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>

#include "net/ssltcp.h"

namespace korv {

SpliceIn::SpliceIn() {
    int p[2];
    if (::pipe2(p, O_CLOEXEC | O_NONBLOCK) != 0) return;
    pr_ = p[0];
    pw_ = p[1];
    // A smaller pipe (the system's limit for this user) still works, in smaller steps.
    int got = ::fcntl(pw_, F_SETPIPE_SZ, kPipeBytes);
    size_ = got > 0 ? got : ::fcntl(pw_, F_GETPIPE_SZ);
    if (size_ <= 0) size_ = 65536;
}

SpliceIn::~SpliceIn() {
    if (pr_ >= 0) ::close(pr_);
    if (pw_ >= 0) ::close(pw_);
}

ssize_t SpliceIn::copy_to_file(int fd, size_t n) {
    char bf[65536];
    ssize_t got = ::read(pr_, bf, n < sizeof bf ? n : sizeof bf);
    if (got <= 0) return got;
    for (ssize_t done = 0; done < got;) {
        ssize_t w = ::write(fd, bf + done, static_cast<size_t>(got - done));
        if (w < 0 && errno == EINTR) continue;
        if (w <= 0) return done > 0 ? done : w;  // the rest of the block is lost with the transfer
        done += w;
    }
    return got;
}

long long SpliceIn::move(Chan* c, int fd, int msecs, long long* written, int* file_err) {
    *written = 0;
    *file_err = 0;
    SSLTCP* x = c->tcp.get();
    ssize_t n;
    bool waited = false;
    for (;;) {
        n = ::splice(x->sk, nullptr, pw_, nullptr, static_cast<size_t>(size_), SPLICE_F_MOVE | SPLICE_F_NONBLOCK);
        if (n >= 0) break;
        if (errno == EINTR) continue;
        if (errno != EAGAIN || waited) {
            SSLTcp_Record(x, errno == EAGAIN ? "recv:Timeout" : "recv", errno);
            return -1;
        }
        struct pollfd p{x->sk, POLLIN, 0};
        int r;
        do {
            r = ::poll(&p, 1, msecs);
        } while (r < 0 && errno == EINTR);
        if (r == 0) {
            SSLTcp_Record(x, "recv:Timeout", EAGAIN);
            return -1;
        }
        waited = true;  // readable now: one more try, whose failure is final
    }
    if (n == 0) return 0;
    while (*written < n) {
        const size_t want = static_cast<size_t>(n - *written);
        ssize_t m = copy_out_ ? copy_to_file(fd, want) : ::splice(pr_, nullptr, fd, nullptr, want, SPLICE_F_MOVE);
        if (m < 0 && errno == EINTR) continue;
        if (m < 0 && !copy_out_ && (errno == EINVAL || errno == ENOSYS || errno == EOPNOTSUPP)) {
            copy_out_ = true;  // a file system that takes no splice: the pipe is emptied by reads
            continue;
        }
        if (m <= 0) {
            *file_err = m < 0 ? errno : 0;
            // What stays in the pipe belongs to a transfer that ends here.
            char sink[4096];
            while (::read(pr_, sink, sizeof sink) > 0) {
            }
            break;
        }
        *written += m;
    }
    return n;
}

}  // namespace korv
