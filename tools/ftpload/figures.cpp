// ftpload's measurements: single transfers, N concurrent clients started together, sessions one
// after another, NOOP round trips, TLS transfers, and the loopback limit they are bounded by.
#include "tools/ftpload/figures.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/sendfile.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <latch>
#include <memory>
#include <mutex>
#include <thread>

#include "base/fmt.h"

namespace korv {

namespace {

using Clock = std::chrono::steady_clock;

constexpr double kMiB = 1024.0 * 1024.0;
const char* const kBigName = "ftpload_big.bin";
const char* const kConcName = "ftpload_conc.bin";

double secs_since(Clock::time_point t0) { return std::chrono::duration<double>(Clock::now() - t0).count(); }

Figure figure(const char* key, std::string name, const char* unit) {
    Figure f;
    f.key = key;
    f.name = std::move(name);
    f.unit = unit;
    return f;
}

Figure& set(Figure& f, double v) {
    f.value = v;
    f.ok = true;
    return f;
}

Figure& no(Figure& f, const std::string& why) {
    f.ok = false;
    f.why = why.empty() ? "failed without a reason" : why;
    return f;
}

// Waits, untimed, until the disk has taken every dirty page. A server that took an upload into
// the page cache faster would otherwise pay for its own speed with writeback during the next figure.
void settle() { ::sync(); }

// One timed transfer in MB/s (10^6 bytes a second): STOR when `up`, else RETR of the same name.
Figure transfer(FtpConn& c, const char* key, const std::string& name, bool up, long long bytes) {
    Figure f = figure(key, name, "MB/s");
    settle();
    auto t0 = Clock::now();
    long long n = up ? c.stor(kBigName, bytes) : c.retr(kBigName);
    double s = secs_since(t0);
    if (n < 0) return no(f, c.error());
    if (n != bytes) return no(f, strfmt("%lld bytes came of %lld", n, bytes));
    return set(f, static_cast<double>(n) / 1e6 / s);
}

// Runs `job(i)` for i in [0, n) on n threads released together; the seconds from the release
// to the last finish, or -1 with the first failure in `why`.
double in_parallel(int n, const std::function<bool(int, std::string&)>& job, std::string& why) {
    std::latch ready(n + 1);
    std::latch start(1);
    std::mutex m;
    int failed = 0;
    std::vector<Clock::time_point> done(static_cast<size_t>(n));
    std::vector<std::thread> th;
    th.reserve(static_cast<size_t>(n));
    for (int i = 0; i < n; i++)
        th.emplace_back([&, i] {
            ready.count_down();
            start.wait();
            std::string w;
            bool ok = job(i, w);
            done[static_cast<size_t>(i)] = Clock::now();
            if (!ok) {
                std::lock_guard<std::mutex> hold(m);
                if (failed++ == 0) why = w;
            }
        });
    ready.arrive_and_wait();
    auto t0 = Clock::now();
    start.count_down();
    for (auto& t : th) t.join();
    if (failed) {
        why = strfmt("%d of %d clients failed, first: %s", failed, n, why.c_str());
        return -1;
    }
    Clock::time_point last = t0;
    for (auto& d : done) last = std::max(last, d);
    return std::chrono::duration<double>(last - t0).count();
}

Figure timed_parallel(const char* key, const std::string& name, int n,
                      const std::function<bool(int, std::string&)>& job) {
    Figure f = figure(key, name, "secs");
    std::string why;
    double s = in_parallel(n, job, why);
    return s < 0 ? no(f, why) : set(f, s);
}

std::string conc_file(int i) { return strfmt("ftpload_c%d.bin", i); }

void add_unmeasured(std::vector<Figure>& out, const LoadOpts& o, const std::string& why, bool include_noop) {
    const int n = o.clients;
    const char* const rows[][3] = {
        {"stor_mbs", "STOR (client -> server)", "MB/s"},
        {"retr_mbs", "RETR (server -> client)", "MB/s"},
        {"conc_login_s", "", "secs"},
        {"stor_idle_mbs", "", "MB/s"},
        {"retr_idle_mbs", "", "MB/s"},
        {"conc_retr_s", "", "secs"},
        {"conc_stor_s", "", "secs"},
        {"conc_quit_s", "", "secs"},
        {"sessions_per_s", "sessions per second (connect, login, QUIT)", "sess/s"},
        {"noop_median_us", "NOOP round trip (median)", "us"},
        {"noop_p99_us", "NOOP round trip (p99)", "us"},
    };
    for (const auto& r : rows) {
        std::string key = r[0];
        if (!include_noop && key.rfind("noop", 0) == 0) continue;
        std::string name = r[1];
        if (key == "conc_login_s") name = strfmt("%d concurrent clients (connect, login)", n);
        if (key == "stor_idle_mbs") name = strfmt("STOR (1 file with %d idle clients)", n);
        if (key == "retr_idle_mbs") name = strfmt("RETR (1 file with %d idle clients)", n);
        if (key == "conc_retr_s") name = strfmt("%d concurrent clients (RETR %lldM file)", n, o.conc_mib);
        if (key == "conc_stor_s") name = strfmt("%d concurrent clients (STOR %lldM file)", n, o.conc_mib);
        if (key == "conc_quit_s") name = strfmt("%d concurrent clients (QUIT)", n);
        Figure f = figure(r[0], name, r[2]);
        out.push_back(no(f, why));
    }
}

void noop_figures(std::vector<Figure>& out, FtpConn& c, int count) {
    Figure med = figure("noop_median_us", "NOOP round trip (median)", "us");
    Figure p99 = figure("noop_p99_us", "NOOP round trip (p99)", "us");
    std::vector<double> us;
    us.reserve(static_cast<size_t>(count));
    for (int i = 0; i < count; i++) {
        auto t0 = Clock::now();
        if (!c.noop()) {
            out.push_back(no(med, c.error()));
            out.push_back(no(p99, c.error()));
            return;
        }
        us.push_back(secs_since(t0) * 1e6);
    }
    double m = median(us);
    out.push_back(set(med, m));
    out.push_back(set(p99, percentile(us, 99)));
}

void tls_figures(std::vector<Figure>& out, const LoadOpts& o) {
    Figure up = figure("tls_stor_mbs", "STOR with TLS (AUTH TLS, PROT P)", "MB/s");
    Figure down = figure("tls_retr_mbs", "RETR with TLS (AUTH TLS, PROT P)", "MB/s");
    FtpTarget t = o.target;
    t.tls = true;
    FtpConn c(t);
    if (!c.open() || !c.login()) {
        out.push_back(no(up, c.error()));
        out.push_back(no(down, c.error()));
        return;
    }
    const long long bytes = static_cast<long long>(o.tls_mib * kMiB);
    out.push_back(transfer(c, up.key.c_str(), up.name, true, bytes));
    out.push_back(transfer(c, down.key.c_str(), down.name, false, bytes));
    c.dele(kBigName);
    c.quit();
}

// One copy of `file` between two loopback sockets, received into a buffer as a client's RETR is:
// sent with sendfile, or read into a buffer and sent as a server without sendfile does. MB/s, or
// -1 and `why`.
double loopback_pass(const std::string& file, bool use_sendfile, std::string& why) {
    Sock in(::open(file.c_str(), O_RDONLY | O_CLOEXEC));
    struct stat st{};
    if (in.get() < 0 || fstat(in.get(), &st) != 0) return why = "cannot open " + file, -1;
    Sock l(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in sa{};
    sa.sin_family = AF_INET;
    sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t sl = sizeof sa;
    if (::bind(l.get(), reinterpret_cast<sockaddr*>(&sa), sizeof sa) != 0 || ::listen(l.get(), 1) != 0 ||
        getsockname(l.get(), reinterpret_cast<sockaddr*>(&sa), &sl) != 0)
        return why = "cannot listen on loopback", -1;
    Sock tx = ftp_connect_tcp("127.0.0.1", ntohs(sa.sin_port), 60000, false, why);
    if (tx.get() < 0) return -1;
    Sock rx(::accept(l.get(), nullptr, nullptr));
    if (rx.get() < 0) return why = "accept failed", -1;
    const long long total = st.st_size;
    long long got = 0;
    auto t0 = Clock::now();
    std::thread reader([&] {
        std::vector<char> bf(256 * 1024);
        for (;;) {
            ssize_t n = ::recv(rx.get(), bf.data(), bf.size(), 0);
            if (n <= 0) break;
            got += n;
        }
    });
    // Non-blocking sends with a wait for room, as a server's sending loop does: a blocking
    // sendfile runs slower on some kernels.
    fcntl(tx.get(), F_SETFL, fcntl(tx.get(), F_GETFL) | O_NONBLOCK);
    off_t off = 0;
    std::vector<char> block(use_sendfile ? 0 : 256 * 1024);
    size_t have = 0, at = 0;  // bytes of `block` read from the file, and sent
    while (off < total || at < have) {
        ssize_t n;
        if (use_sendfile) {
            n = ::sendfile(tx.get(), in.get(), &off, static_cast<size_t>(total - off));
        } else {
            if (at == have) {
                ssize_t r = ::pread(in.get(), block.data(), block.size(), off);
                if (r <= 0) break;
                off += r;
                have = static_cast<size_t>(r);
                at = 0;
            }
            n = ::send(tx.get(), block.data() + at, have - at, MSG_NOSIGNAL);
            if (n > 0) at += static_cast<size_t>(n);
        }
        if (n > 0) continue;
        if (n == 0 || (errno != EAGAIN && errno != EINTR)) break;
        pollfd pf{tx.get(), POLLOUT, 0};
        if (::poll(&pf, 1, 60000) <= 0) break;
    }
    tx.reset();
    reader.join();
    double s = secs_since(t0);
    if (got != total) return why = strfmt("%lld bytes came of %lld", got, total), -1;
    return static_cast<double>(got) / 1e6 / s;
}

}  // namespace

std::vector<Figure> ftpload_run(const LoadOpts& o) {
    std::vector<Figure> out;
    const int n = o.clients;
    FtpConn probe(o.target);
    if (!probe.open()) {
        add_unmeasured(out, o, "connect: " + probe.error(), true);
        return out;
    }
    if (!probe.login()) {
        // Without a login only the control round trip can be measured, on a fresh connection.
        std::string why = probe.error();
        add_unmeasured(out, o, why, false);
        FtpConn c(o.target);
        if (c.open()) noop_figures(out, c, o.noops);
        c.quit();
        return out;
    }
    const long long big = static_cast<long long>(o.big_mib * kMiB);
    const long long conc = static_cast<long long>(o.conc_mib * kMiB);
    out.push_back(transfer(probe, "stor_mbs", "STOR (client -> server)", true, big));
    out.push_back(transfer(probe, "retr_mbs", "RETR (server -> client)", false, big));

    std::vector<std::unique_ptr<FtpConn>> cl;
    for (int i = 0; i < n; i++) cl.push_back(std::make_unique<FtpConn>(o.target));
    out.push_back(timed_parallel("conc_login_s", strfmt("%d concurrent clients (connect, login)", n), n,
                                 [&](int i, std::string& why) {
                                     FtpConn& c = *cl[static_cast<size_t>(i)];
                                     if (c.open() && c.login()) return true;
                                     why = c.error();
                                     c.close();  // counted out of the idle clients below
                                     return false;
                                 }));
    int idle = 0;
    for (auto& c : cl) idle += c->is_open();
    Figure su = figure("stor_idle_mbs", strfmt("STOR (1 file with %d idle clients)", n), "MB/s");
    Figure rd = figure("retr_idle_mbs", strfmt("RETR (1 file with %d idle clients)", n), "MB/s");
    if (idle < n) {
        // Fewer idle sessions than the name says would flatter the server.
        std::string why = strfmt("only %d of %d clients logged in", idle, n);
        out.push_back(no(su, why));
        out.push_back(no(rd, why));
    } else {
        out.push_back(transfer(probe, su.key.c_str(), su.name, true, big));
        out.push_back(transfer(probe, rd.key.c_str(), rd.name, false, big));
    }

    Figure cr = figure("conc_retr_s", strfmt("%d concurrent clients (RETR %lldM file)", n, o.conc_mib), "secs");
    if (probe.stor(kConcName, conc) != conc) {
        out.push_back(no(cr, probe.error()));
    } else {
        out.push_back(timed_parallel(cr.key.c_str(), cr.name, n, [&](int i, std::string& why) {
            FtpConn& c = *cl[static_cast<size_t>(i)];
            if (!c.is_open()) return why = "not connected", false;
            long long got = c.retr(kConcName);
            if (got == conc) return true;
            why = got < 0 ? c.error() : strfmt("%lld bytes came of %lld", got, conc);
            return false;
        }));
    }
    settle();
    out.push_back(timed_parallel("conc_stor_s", strfmt("%d concurrent clients (STOR %lldM file)", n, o.conc_mib), n,
                                 [&](int i, std::string& why) {
                                     FtpConn& c = *cl[static_cast<size_t>(i)];
                                     if (!c.is_open()) return why = "not connected", false;
                                     return c.stor(conc_file(i), conc) == conc || (why = c.error(), false);
                                 }));
    out.push_back(timed_parallel("conc_quit_s", strfmt("%d concurrent clients (QUIT)", n), n,
                                 [&](int i, std::string& why) {
                                     FtpConn& c = *cl[static_cast<size_t>(i)];
                                     if (!c.is_open()) return why = "not connected", false;
                                     return c.quit() || (why = c.error(), false);
                                 }));
    cl.clear();

    settle();
    Figure sps = figure("sessions_per_s", "sessions per second (connect, login, QUIT)", "sess/s");
    {
        int count = 0;
        std::string why;
        auto t0 = Clock::now();
        while (secs_since(t0) < o.session_secs) {
            FtpConn c(o.target);
            if (!c.open() || !c.login() || !c.quit()) {
                why = c.error();
                break;
            }
            count++;
        }
        out.push_back(why.empty() ? set(sps, count / secs_since(t0)) : no(sps, why));
    }
    settle();
    noop_figures(out, probe, o.noops);
    if (o.with_tls) tls_figures(out, o);

    // Leave the account as it was found; not timed.
    probe.dele(kBigName);
    probe.dele(kConcName);
    for (int i = 0; i < n; i++) probe.dele(conc_file(i));
    probe.quit();
    return out;
}

std::vector<Figure> ftpload_loopback(const std::string& file) {
    Figure sf = figure("loopback_mbs", "loopback limit (sendfile between two sockets)", "MB/s");
    Figure cp = figure("loopback_copy_mbs", "loopback limit (read and send between two sockets)", "MB/s");
    // Each limit is the best of a few passes: a pass can only be slowed by the rest of the machine.
    constexpr int kPasses = 3;
    for (Figure* f : {&sf, &cp}) {
        double best = 0;
        std::string why;
        for (int pass = 0; pass < kPasses && best >= 0; pass++) {
            double mbs = loopback_pass(file, f == &sf, why);
            best = mbs < 0 ? -1 : std::max(best, mbs);
        }
        if (best < 0)
            no(*f, why);
        else
            set(*f, best);
    }
    return {sf, cp};
}

}  // namespace korv
