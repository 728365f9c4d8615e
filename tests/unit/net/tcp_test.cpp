// Channels on real loopback sockets: line reads, timed reads and writes running out, accept with
// nothing pending, error texts, waits, file sends, and a wait list past descriptor 1023.
#include "net/tcp.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "net/libtcp.h"
#include "tests/support/certs.h"
#include "tests/support/chanpair.h"

namespace korv {
namespace {

using test::make_chan_pair;

struct ReadlineCase {
    const char* name;
    std::vector<std::string> chunks;  // sent one by one, with a pause between them
    bool close_after;
    int outsz;
    std::vector<std::pair<int, std::string>> expect;  // result and text of each tcp_readline
    std::string left_in_buffer;                       // what stays in the channel's buffer
};

TEST(TcpReadline, LinesArriveWholeAndCounted) {
    const std::string long_line(1500, 'L');
    const std::vector<ReadlineCase> cases = {
        {"split line", {"US", "ER ab", "c\r\n"}, false, 1000, {{10, "USER abc"}}, ""},
        {"crlf only", {"\r\n"}, false, 1000, {{2, ""}}, ""},
        {"bare lf", {"\n"}, false, 1000, {{1, ""}}, ""},
        {"pipelined", {"a\nbb\r\nccc"}, false, 1000, {{2, "a"}, {4, "bb"}}, "ccc"},
        {"embedded cr", {"ab\rcd\n"}, false, 1000, {{6, "ab"}}, ""},
        {"short out cuts", {std::string(98, 'x')}, false, 100, {{98, std::string(98, 'x')}}, ""},
        {"line cut by out drops rest", {"0123456789\nnext\n"}, false, 8, {{6, "012345"}, {5, "next"}}, ""},
        {"long line in pieces", {long_line + "\n"}, false, 2000, {{999, long_line.substr(0, 999)}, {502, long_line.substr(999)}}, ""},
        {"peer closes mid-line", {"partial"}, true, 1000, {{0, ""}}, "partial"},
    };
    for (const ReadlineCase& c : cases) {
        SCOPED_TRACE(c.name);
        ChanPtr cl, sv;
        ASSERT_TRUE(make_chan_pair(cl, sv));
        std::thread writer([&] {
            for (const std::string& s : c.chunks) {
                ASSERT_EQ(tcp_write_timed(cl.get(), s.data(), static_cast<int>(s.size()), 5000),
                          static_cast<int>(s.size()));
                std::this_thread::sleep_for(std::chrono::milliseconds(15));
            }
            if (c.close_after) tcp_close(cl.get());
        });
        for (const auto& [want_n, want_text] : c.expect) {
            std::vector<char> out(static_cast<size_t>(c.outsz), '#');
            int n = tcp_readline(sv.get(), out.data(), c.outsz);
            EXPECT_EQ(n, want_n);
            if (n > 0) {
                EXPECT_EQ(std::string(out.data()), want_text);
            }
        }
        writer.join();
        EXPECT_EQ(std::string(sv->buffer, static_cast<size_t>(sv->bfbytes)), c.left_in_buffer);
    }
}

TEST(TcpTimed, ReadRunsOutWithWouldBlockText) {
    ChanPtr cl, sv;
    ASSERT_TRUE(make_chan_pair(cl, sv));
    char bf[16];
    EXPECT_EQ(tcp_read_timed(sv.get(), bf, sizeof bf, 30), -1);
    EXPECT_EQ(tcp_blocking_error(sv.get()), 1);
    EXPECT_TRUE(std::regex_match(tcp_error(sv.get()),
                                 std::regex("SSLTCP:\\d{3,}:recv:Timeout tcp:11:Resource temporarily unavailable")))
        << tcp_error(sv.get());
    // Bytes that arrive later are read normally, and the peer's close reads as 0.
    ASSERT_EQ(tcp_write_timed(cl.get(), "xyz", 3, 1000), 3);
    EXPECT_EQ(tcp_read_timed(sv.get(), bf, sizeof bf, 5000), 3);
    tcp_close(cl.get());
    EXPECT_EQ(tcp_read_timed(sv.get(), bf, sizeof bf, 5000), 0);
}

TEST(TcpTimed, WriteReturnsPartialCountThenWouldBlock) {
    ChanPtr cl, sv;
    ASSERT_TRUE(make_chan_pair(cl, sv));
    tcp_set_socket_bf_sz(cl.get(), 0, 1, 16384);
    tcp_set_socket_bf_sz(sv.get(), 1, 0, 16384);
    std::string big(8 << 20, 'w');
    int n = tcp_write_timed(cl.get(), big.data(), static_cast<int>(big.size()), 50);
    EXPECT_GT(n, 0);
    EXPECT_LT(n, static_cast<int>(big.size()));
    // With both buffers full, nothing more can go: -1 and a would-block code.
    EXPECT_EQ(tcp_write_timed(cl.get(), big.data(), static_cast<int>(big.size()), 20), -1);
    EXPECT_EQ(tcp_blocking_error(cl.get()), 1);
}

TEST(TcpErrors, FailuresCarryTheirSourceAndText) {
    // Accept with nothing pending on a non-blocking listener.
    unsigned short port = 0;
    ChanPtr l = test::listen_loopback(&port);
    ASSERT_TRUE(l);
    ASSERT_TRUE(tcp_set_blocking(l.get(), 0));
    ChanPtr x = tcp_new_owned();
    EXPECT_EQ(tcp_accept(l.get(), x.get()), 0);
    EXPECT_EQ(tcp_blocking_error(x.get()), 1);
    EXPECT_NE(tcp_error(x.get()).find(":accept tcp:11:"), std::string::npos) << tcp_error(x.get());
    EXPECT_EQ(tcp_accept_noblock(l.get(), x.get(), 10), 0);

    // A connect to a port nobody listens on (the listener is closed first).
    tcp_close(l.get());
    ChanPtr c = tcp_new_owned();
    EXPECT_EQ(tcp_open(c.get(), "127.0.0.1", port), 0);
    EXPECT_NE(tcp_error(c.get()).find(":connect tcp:111:Connection refused"), std::string::npos) << tcp_error(c.get());

    // Addresses of a closed channel: the layer's own code and text.
    ChanPtr closed = tcp_new_owned();
    char ip[16];
    EXPECT_EQ(tcp_getip(closed.get(), ip), 0);
    EXPECT_NE(tcp_error(closed.get())
                  .find("SSLTcp_GetIPAndPorts tcp:-1003:Parameter Incorrect or not valid for function call "
                        "(programmer error)"),
              std::string::npos);
    // A wait on a closed channel reports ready so that the read meets the real state.
    EXPECT_EQ(tcp_need_read_attention(closed.get(), 10), 1);
    // A name with a port after ':' resolves through the name lookup without the port.
    sockaddr_in sa;
    EXPECT_EQ(SSLTcp_MakeAddr(closed->tcp.get(), &sa, "127.0.0.1:2121", 21, 0), 1);
    char text[16];
    EXPECT_STREQ(inet_ntop(AF_INET, &sa.sin_addr, text, sizeof text), "127.0.0.1");
    EXPECT_EQ(SSLTcp_MakeAddr(closed->tcp.get(), &sa, "no-such-host.invalid", 21, 0), 0);
    EXPECT_NE(tcp_error(closed.get()).find(":gethostbyname tcp:"), std::string::npos);
}

TEST(TcpChan, AddressesWaitsAndPrintf) {
    ChanPtr cl, sv;
    ASSERT_TRUE(make_chan_pair(cl, sv));
    char lip[16], rip[16];
    unsigned short lport = 0, rport = 0;
    ASSERT_EQ(tcp_getipandports(sv.get(), lip, &lport, rip, &rport), 1);
    EXPECT_STREQ(lip, "127.0.0.1");
    EXPECT_STREQ(rip, "127.0.0.1");
    int cl_local = 0, cl_remote = 0;
    tcp_getports(cl.get(), &cl_local, &cl_remote);
    EXPECT_EQ(cl_local, rport);
    EXPECT_EQ(cl_remote, lport);

    EXPECT_EQ(tcp_need_read_attention(sv.get(), 0), 0);
    EXPECT_EQ(tcp_can_write(sv.get(), 1000), 1);
    EXPECT_EQ(tcp_printf(cl.get(), "%03d %s\r\n", 7, "ok"), 8);
    EXPECT_EQ(tcp_need_read_attention(sv.get(), 5000), 1);
    char out[100];
    EXPECT_EQ(tcp_readline(sv.get(), out, sizeof out), 8);
    EXPECT_STREQ(out, "007 ok");
    EXPECT_EQ(tcp_set_nodelay(sv.get(), 1), 1);
    // A closed channel can be opened again.
    tcp_close(cl.get());
    EXPECT_EQ(tcp_isopen(cl.get()), 0);
    tcp_close(cl.get());
}

TEST(TcpChan, SendFileDeliversTheFile) {
    test::TempDir dir("korv-tcp");
    std::string path = dir.file("data.bin");
    std::string content;
    for (int i = 0; i < 300000; ++i) content.push_back(static_cast<char>('a' + i % 26));
    {
        int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        ASSERT_GE(fd, 0);
        ASSERT_EQ(::write(fd, content.data(), content.size()), static_cast<ssize_t>(content.size()));
        ::close(fd);
    }
    ChanPtr cl, sv;
    ASSERT_TRUE(make_chan_pair(cl, sv));
    std::string got;
    std::thread reader([&] {
        char bf[65536];
        for (;;) {
            int n = tcp_read_timed(sv.get(), bf, sizeof bf, 5000);
            if (n <= 0) break;
            got.append(bf, static_cast<size_t>(n));
        }
    });
    int fd = ::open(path.c_str(), O_RDONLY);
    ASSERT_GE(fd, 0);
    off_t off = 1000;
    EXPECT_EQ(tcp_sendfile(cl.get(), fd, &off, static_cast<long long>(content.size()) - 1000, 5000),
              static_cast<long long>(content.size()) - 1000);
    EXPECT_EQ(off, static_cast<off_t>(content.size()));
    ::close(fd);
    tcp_close(cl.get());
    reader.join();
    EXPECT_TRUE(got == content.substr(1000));
}

int note_ready(void* ptr) {
    auto* node = static_cast<Chan_List*>(ptr);
    ++*static_cast<int*>(node->parameter);
    return 1;
}

// Listeners far past descriptor 1023 are watched and their channels read like any other.
TEST(TcpWaitList, WorksPastDescriptor1023) {
    struct rlimit rl{};
    getrlimit(RLIMIT_NOFILE, &rl);
    if (rl.rlim_cur < 1400) {
        rl.rlim_cur = std::min<rlim_t>(1400, rl.rlim_max);
        setrlimit(RLIMIT_NOFILE, &rl);
    }
    if (rl.rlim_cur < 1400) GTEST_SKIP() << "descriptor limit too low: " << rl.rlim_cur;
    constexpr int kListeners = 1100;
    std::vector<int> hits(kListeners, 0);
    std::vector<unsigned short> ports(kListeners);
    Chan_List* list = nullptr;
    for (int i = 0; i < kListeners; ++i) {
        ChanPtr l = test::listen_loopback(&ports[i]);
        ASSERT_TRUE(l);
        ASSERT_EQ(Chan_List_Add(&list, l.release(), note_ready, &hits[i], 0, "test"), 1);
    }
    ASSERT_GT(tcp_get_sockethandle(list->c), 1023);  // the newest is at the head
    WaitList* wl = nullptr;
    ASSERT_EQ(Chan_List_create_WaitList(list, &wl), 1);
    EXPECT_EQ(Chan_List_check_WaitList(wl, 0, 1, 0, 0), 0);

    const int target = kListeners - 1;
    ChanPtr c = tcp_new_owned();
    ASSERT_EQ(tcp_open(c.get(), "127.0.0.1", ports[target]), 1);
    EXPECT_EQ(Chan_List_check_WaitList(wl, 5000, 1, 0, 0), 1);
    EXPECT_EQ(hits[target], 1);
    EXPECT_EQ(std::count(hits.begin(), hits.end(), 1), 1);

    ChanPtr accepted = tcp_new_owned();
    ASSERT_EQ(tcp_accept(list->c, accepted.get()), 1);
    ASSERT_GT(tcp_get_sockethandle(accepted.get()), 1023);
    ASSERT_EQ(tcp_write_timed(c.get(), "hi\n", 3, 1000), 3);
    char line[10];
    EXPECT_EQ(tcp_readline(accepted.get(), line, sizeof line), 3);
    EXPECT_STREQ(line, "hi");

    EXPECT_EQ(Chan_List_free_WaitList(&wl), 1);
    EXPECT_EQ(wl, nullptr);
    EXPECT_EQ(Chan_List_free(&list), 1);
    EXPECT_EQ(list, nullptr);
}

}  // namespace
}  // namespace korv
