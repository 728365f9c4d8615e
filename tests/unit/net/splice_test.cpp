// Uploads through the kernel pipe: bytes land in the file exactly and at its offset, a wait
// reads as a timed read's would-block, the peer's close as 0, a file that refuses bytes is
// told apart from the connection, and a file that takes no splice still gets them.
#include "net/splice.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>

#include "tests/support/certs.h"
#include "tests/support/chanpair.h"

namespace korv {
namespace {

std::string slurp(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

TEST(SpliceIn, BytesLandInTheFileAtItsOffset) {
    test::TempDir dir("korv-splice");
    std::string path = dir.file("up.bin");
    int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0644);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(::write(fd, "HEAD", 4), 4);  // a resumed upload goes on after what is there
    ChanPtr cl, sv;
    ASSERT_TRUE(test::make_chan_pair(cl, sv));
    SpliceIn in;
    ASSERT_TRUE(in.ok());
    long long landed = 0;
    int err = 0;
    EXPECT_EQ(in.move(sv.get(), fd, 30, &landed, &err), -1);  // nothing sent yet
    EXPECT_EQ(tcp_blocking_error(sv.get()), 1);

    // More than the pipe holds, in writes of odd sizes.
    std::string content;
    for (int i = 0; i < (3 << 20) + 11; ++i) content.push_back(static_cast<char>(i * 13 + i / 4099));
    std::thread writer([&] {
        for (size_t at = 0; at < content.size();) {
            int n = tcp_write_timed(cl.get(), content.data() + at,
                                    static_cast<int>(std::min<size_t>(content.size() - at, 77777)), 5000);
            if (n <= 0) break;
            at += static_cast<size_t>(n);
        }
        tcp_close(cl.get());
    });
    long long total = 0;
    for (;;) {
        long long n = in.move(sv.get(), fd, 5000, &landed, &err);
        if (n <= 0) {
            EXPECT_EQ(n, 0) << tcp_error(sv.get());
            break;
        }
        EXPECT_EQ(landed, n);
        EXPECT_LE(n, SpliceIn::kPipeBytes);
        total += n;
    }
    writer.join();
    ::close(fd);
    EXPECT_EQ(total, static_cast<long long>(content.size()));
    EXPECT_TRUE(slurp(path) == "HEAD" + content);
}

TEST(SpliceIn, AFileThatRefusesBytesIsNotTheConnection) {
    test::TempDir dir("korv-splice");
    std::string path = dir.file("ro.bin");
    { std::ofstream(path) << ""; }
    int fd = ::open(path.c_str(), O_RDONLY);
    ASSERT_GE(fd, 0);
    ChanPtr cl, sv;
    ASSERT_TRUE(test::make_chan_pair(cl, sv));
    ASSERT_EQ(tcp_write_timed(cl.get(), "abcdef", 6, 1000), 6);
    SpliceIn in;
    long long landed = -1;
    int err = 0;
    EXPECT_EQ(in.move(sv.get(), fd, 5000, &landed, &err), 6);
    EXPECT_EQ(landed, 0);
    EXPECT_EQ(err, EBADF);
    ::close(fd);
    // The pipe was emptied: the next bytes are the next ones sent.
    std::string path2 = dir.file("ok.bin");
    int fd2 = ::open(path2.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    ASSERT_EQ(tcp_write_timed(cl.get(), "xyz", 3, 1000), 3);
    EXPECT_EQ(in.move(sv.get(), fd2, 5000, &landed, &err), 3);
    ::close(fd2);
    EXPECT_EQ(slurp(path2), "xyz");
}

// The kernel refuses to splice into a file opened to append, as some file
// systems refuse splices altogether: the bytes still reach the file, by reads
// out of the pipe.
TEST(SpliceIn, AFileThatTakesNoSpliceGetsTheBytesAnyway) {
    test::TempDir dir("korv-splice");
    std::string path = dir.file("app.bin");
    { std::ofstream(path) << "old:"; }
    int fd = ::open(path.c_str(), O_WRONLY | O_APPEND);
    ASSERT_GE(fd, 0);
    ChanPtr cl, sv;
    ASSERT_TRUE(test::make_chan_pair(cl, sv));
    SpliceIn in;
    long long landed = 0;
    int err = 0;
    for (const char* part : {"first ", "second"}) {
        int len = static_cast<int>(strlen(part));
        ASSERT_EQ(tcp_write_timed(cl.get(), part, len, 1000), len);
        EXPECT_EQ(in.move(sv.get(), fd, 5000, &landed, &err), len);
        EXPECT_EQ(landed, len);
        EXPECT_EQ(err, 0);
    }
    ::close(fd);
    EXPECT_EQ(slurp(path), "old:first second");
}

}  // namespace
}  // namespace korv
