// chanbench: copies a volume of bytes over a loopback channel pair and prints MB/s and CPU
// seconds, for raw sockets (the loopback limit), plain channels, channels sending a file, and TLS.
//
//   chanbench [-mib N] [-block BYTES] [-mode raw|plain|sendfile|tls|all]
#include <fcntl.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "net/certgen.h"
#include "net/tcp.h"
#include "net/tls.h"

using namespace korv;

namespace {

struct Options {
    long long mib = 1024;
    int block = 256 * 1024;
    std::string mode = "all";
};

double cpu_seconds() {
    struct rusage ru{};
    getrusage(RUSAGE_SELF, &ru);
    return static_cast<double>(ru.ru_utime.tv_sec + ru.ru_stime.tv_sec) +
           static_cast<double>(ru.ru_utime.tv_usec + ru.ru_stime.tv_usec) / 1e6;
}

bool make_pair(ChanPtr& client, ChanPtr& server) {
    ChanPtr l = tcp_new_owned();
    if (!tcp_listen(l.get(), "127.0.0.1", 0, 1)) return false;
    int port = 0;
    tcp_getport(l.get(), &port);
    client = tcp_new_owned();
    server = tcp_new_owned();
    return tcp_open(client.get(), "127.0.0.1", static_cast<unsigned short>(port)) &&
           tcp_accept_noblock(l.get(), server.get(), 5000);
}

// Reads until `total` bytes have come; returns the count read.
long long drain(Chan* c, long long total, int block) {
    std::vector<char> bf(static_cast<size_t>(block));
    long long got = 0;
    while (got < total) {
        int n = tcp_read_timed(c, bf.data(), block, 180000);
        if (n <= 0) break;
        got += n;
    }
    return got;
}

void report(const char* name, long long bytes, double secs, double cpu) {
    std::printf("%-9s %6lld MiB in %7.3f s = %8.1f MB/s, CPU %6.2f s (%.2f CPU s per GiB)\n", name, bytes >> 20,
                secs, static_cast<double>(bytes) / 1e6 / secs, cpu, cpu / (static_cast<double>(bytes) / (1 << 30)));
    std::fflush(stdout);
}

template <class Send>
bool timed_copy(const char* name, Chan* from, Chan* to, long long total, int block, Send send) {
    double cpu0 = cpu_seconds();
    auto t0 = std::chrono::steady_clock::now();
    long long got = 0;
    std::thread reader([&] { got = drain(to, total, block); });
    bool ok = send();
    reader.join();
    double secs = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    if (!ok || got != total) {
        std::fprintf(stderr, "%s: copy failed after %lld bytes: %s\n", name, got, tcp_error(from).c_str());
        return false;
    }
    report(name, total, secs, cpu_seconds() - cpu0);
    return true;
}

bool bench_raw(long long total, int block) {
    ChanPtr c, s;
    if (!make_pair(c, s)) return false;
    tcp_set_blocking(c.get(), 1);
    tcp_set_blocking(s.get(), 1);
    int cfd = tcp_get_sockethandle(c.get());
    int sfd = tcp_get_sockethandle(s.get());
    std::vector<char> src(static_cast<size_t>(block), 'r');
    double cpu0 = cpu_seconds();
    auto t0 = std::chrono::steady_clock::now();
    long long got = 0;
    std::thread reader([&] {
        std::vector<char> bf(static_cast<size_t>(block));
        while (got < total) {
            ssize_t n = ::recv(sfd, bf.data(), bf.size(), 0);
            if (n <= 0) break;
            got += n;
        }
    });
    for (long long sent = 0; sent < total;) {
        ssize_t n = ::send(cfd, src.data(), static_cast<size_t>(std::min<long long>(block, total - sent)), 0);
        if (n <= 0) break;
        sent += n;
    }
    reader.join();
    double secs = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    if (got != total) return false;
    report("raw", total, secs, cpu_seconds() - cpu0);
    return true;
}

bool send_blocks(Chan* c, long long total, int block) {
    std::vector<char> src(static_cast<size_t>(block), 'p');
    for (long long sent = 0; sent < total;) {
        int len = static_cast<int>(std::min<long long>(block, total - sent));
        int n = tcp_write_timed(c, src.data(), len, 180000);
        if (n <= 0) return false;
        sent += n;
    }
    return true;
}

bool bench_plain(long long total, int block) {
    ChanPtr c, s;
    if (!make_pair(c, s)) return false;
    return timed_copy("plain", c.get(), s.get(), total, block, [&] { return send_blocks(c.get(), total, block); });
}

bool bench_sendfile(long long total, int block, const std::string& dir) {
    std::string path = dir + "/payload.bin";
    {
        int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        std::vector<char> src(1 << 20, 'f');
        for (long long n = 0; n < total; n += static_cast<long long>(src.size()))
            if (::write(fd, src.data(), src.size()) < 0) break;
        ::close(fd);
    }
    ChanPtr c, s;
    if (!make_pair(c, s)) return false;
    int fd = ::open(path.c_str(), O_RDONLY);
    off_t off = 0;
    bool ok = timed_copy("sendfile", c.get(), s.get(), total, block,
                         [&] { return tcp_sendfile(c.get(), fd, &off, total, 180000) == total; });
    ::close(fd);
    ::unlink(path.c_str());
    return ok;
}

bool bench_tls(long long total, int block, const std::string& dir) {
    std::string why;
    std::string cert = dir + "/cert.pem", key = dir + "/key.pem";
    if (!certgen_self_signed("localhost", 2, cert, key, why)) {
        std::fprintf(stderr, "tls: %s\n", why.c_str());
        return false;
    }
    SSLTCP_SSLConfig server;
    server.beSSLClient = 0;
    server.use_certificate = 1;
    server.cert_pem_certificate = cert;
    server.cert_pem_privkey = key;
    ChanPtr c, s;
    if (!make_pair(c, s)) return false;
    std::string sr, cr;
    int sok = 0;
    std::thread hs([&] { sok = new_tcp_ssl_init(s.get(), &server, 1, sr); });
    int cok = new_tcp_ssl_init(c.get(), nullptr, 0, cr);
    hs.join();
    if (!sok || !cok) {
        std::fprintf(stderr, "tls: handshake failed: %s / %s\n", sr.c_str(), cr.c_str());
        return false;
    }
    std::printf("tls: %s, kernel TLS for sending: %s\n", cr.c_str(), tcp_ssl_uses_ktls(c.get()) ? "yes" : "no");
    return timed_copy("tls", c.get(), s.get(), total, block, [&] { return send_blocks(c.get(), total, block); });
}

}  // namespace

int main(int argc, char** argv) {
    Options o;
    for (int i = 1; i + 1 < argc; i += 2) {
        std::string a = argv[i];
        if (a == "-mib")
            o.mib = std::atoll(argv[i + 1]);
        else if (a == "-block")
            o.block = std::atoi(argv[i + 1]);
        else if (a == "-mode")
            o.mode = argv[i + 1];
        else {
            std::fprintf(stderr, "usage: chanbench [-mib N] [-block BYTES] [-mode raw|plain|sendfile|tls|all]\n");
            return 2;
        }
    }
    if (o.mib < 1 || o.block < 1) return 2;
    tcp_init();
    const long long total = o.mib << 20;
    std::string dir = (std::filesystem::temp_directory_path() / "chanbench-XXXXXX").string();
    if (!::mkdtemp(dir.data())) return 1;
    std::printf("chanbench: %lld MiB per run, blocks of %d bytes\n", o.mib, o.block);
    bool all = o.mode == "all", ok = true;
    if (all || o.mode == "raw") ok = bench_raw(total, o.block) && ok;
    if (all || o.mode == "plain") ok = bench_plain(total, o.block) && ok;
    if (all || o.mode == "sendfile") ok = bench_sendfile(total, o.block, dir) && ok;
    if (all || o.mode == "tls") ok = bench_tls(total, o.block, dir) && ok;
    std::error_code ec;
    std::filesystem::remove_all(dir, ec);
    return ok ? 0 : 1;
}
