// connbench: connection figures of a running FTP server.
//   connbench rate PORT CLIENTS SECONDS   clients in parallel, each looping
//                                         connect, greeting, QUIT, 221, close;
//                                         prints connections per second
//   connbench idle PORT SESSIONS PID      opens SESSIONS greeted sessions and
//                                         prints the resident memory of PID
#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

int connect_to(int port) {
    int s = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (s < 0) return -1;
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(static_cast<uint16_t>(port));
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::connect(s, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) {
        ::close(s);
        return -1;
    }
    int one = 1;
    setsockopt(s, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    return s;
}

// Reads until a line starting with `code` and a blank has arrived.
bool expect(int s, const char* code, int timeout_ms) {
    std::string got;
    auto end = Clock::now() + std::chrono::milliseconds(timeout_ms);
    for (;;) {
        size_t at = got.find(std::string(code) + " ");
        if (at != std::string::npos && got.find("\r\n", at) != std::string::npos) return true;
        int left = static_cast<int>(std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now()).count());
        if (left <= 0) return false;
        pollfd p{s, POLLIN, 0};
        if (::poll(&p, 1, left) <= 0) return false;
        char bf[512];
        ssize_t n = ::recv(s, bf, sizeof bf, 0);
        if (n <= 0) return false;
        got.append(bf, static_cast<size_t>(n));
    }
}

long rss_kib(int pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/status");
    std::string line;
    while (std::getline(in, line))
        if (line.rfind("VmRSS:", 0) == 0) return std::atol(line.c_str() + 6);
    return -1;
}

int rate(int port, int clients, int seconds) {
    std::atomic<long> done{0}, failed{0};
    std::atomic<bool> stop{false};
    std::vector<std::thread> ts;
    auto start = Clock::now();
    for (int i = 0; i < clients; ++i)
        ts.emplace_back([&] {
            while (!stop.load()) {
                int s = connect_to(port);
                bool ok = s >= 0 && expect(s, "220", 10000) && ::send(s, "QUIT\r\n", 6, MSG_NOSIGNAL) == 6 &&
                          expect(s, "221", 10000);
                if (s >= 0) ::close(s);
                (ok ? done : failed)++;
            }
        });
    std::this_thread::sleep_for(std::chrono::seconds(seconds));
    stop = true;
    for (auto& t : ts) t.join();
    double secs = std::chrono::duration<double>(Clock::now() - start).count();
    std::printf("clients %d, %.1f s: %ld sessions (connect, greeting, QUIT, 221), %ld failed, %.0f per second\n",
                clients, secs, done.load(), failed.load(), done.load() / secs);
    return failed.load() == 0 ? 0 : 1;
}

int idle(int port, int sessions, int pid) {
    long before = rss_kib(pid);
    std::vector<int> open;
    for (int i = 0; i < sessions; ++i) {
        int s = connect_to(port);
        if (s < 0 || !expect(s, "220", 10000)) {
            std::printf("session %d failed\n", i);
            break;
        }
        open.push_back(s);
    }
    std::this_thread::sleep_for(std::chrono::seconds(2));
    long after = rss_kib(pid);
    std::printf("%zu idle sessions: server RSS %ld KiB (was %ld KiB with none), %.1f KiB per session\n", open.size(),
                after, before, open.empty() ? 0.0 : double(after - before) / double(open.size()));
    for (int s : open) ::close(s);
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    struct rlimit rl {};
    if (getrlimit(RLIMIT_NOFILE, &rl) == 0) {
        rl.rlim_cur = rl.rlim_max;
        setrlimit(RLIMIT_NOFILE, &rl);
    }
    if (argc == 5 && std::strcmp(argv[1], "rate") == 0) return rate(atoi(argv[2]), atoi(argv[3]), atoi(argv[4]));
    if (argc == 5 && std::strcmp(argv[1], "idle") == 0) return idle(atoi(argv[2]), atoi(argv[3]), atoi(argv[4]));
    std::fprintf(stderr, "usage: connbench rate PORT CLIENTS SECONDS | connbench idle PORT SESSIONS PID\n");
    return 2;
}
