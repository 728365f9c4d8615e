// LIST lines of the Unix and DOS forms into name, date, size and kind; lines
// that are no entries refused; the PASV reply's address and port.
#include <gtest/gtest.h>

#include <string>

#include "client/ftplib.h"

namespace korv {
namespace {

struct Case {
    const char* line;
    int ok;
    const char* name;
    const char* date;
    long long size;
    int isdir, islink;
};

TEST(FtpDecode, ListingLines) {
    const std::string long_name(300, 'n');
    const std::string long_line = "-rw-r--r--   1 ftp      ftp          12 Mar  3  2021 " + long_name;
    const Case cases[] = {
        // Unix with a year, with a time, blanks in names, kinds.
        {"-rw-r--r--   1 ftp      ftp        1234 Mar  3  2021 readme.txt", 1, "readme.txt", "Mar 3 2021", 1234, 0, 0},
        {"-rw-r--r--   1 owner    group     99999 Nov 25 09:41 today.bin", 1, "today.bin", "Nov 25 09:41", 99999, 0, 0},
        {"-rw-r--r--   1 ftp      ftp           7 Jan  1  2010 two  blanks inside", 1, "two  blanks inside",
         "Jan 1 2010", 7, 0, 0},
        {"-rw-r--r--   1 ftp      ftp           7 Jan  1  2010  leading blank", 1, " leading blank", "Jan 1 2010", 7,
         0, 0},
        {"drwxr-xr-x   2 ftp      ftp        4096 Feb 29  2024 sub dir", 1, "sub dir", "Feb 29 2024", 4096, 1, 0},
        {"lrwxrwxrwx   1 ftp      ftp          11 Jun  5 12:00 link -> target", 1, "link -> target", "Jun 5 12:00",
         11, 0, 1},
        {"Lrwxrwxrwx   1 ftp      ftp          11 Jun  5 12:00 dirlink -> t", 1, "dirlink -> t", "Jun 5 12:00", 11, 1,
         1},
        {"crw-rw-rw-   1 root     root       1,   3 Jan  1  2010 null device", 1, "null device", "Jan 1 2010", 0, 0,
         0},
        {"-rw-r--r--   1 ftp      ftp    5368709120 Mar  3  2021 big.iso", 1, "big.iso", "Mar 3 2021", 5368709120LL,
         0, 0},
        {"-rw-r--r--   1 ftp      ftp        1234 Mar  3  2021 crlf.txt\r\n", 1, "crlf.txt", "Mar 3 2021", 1234, 0, 0},
        // DOS.
        {"04-21-07  11:30AM       <DIR>          pub", 1, "pub", "04-21-07 11:30AM", 0, 1, 0},
        {"12-01-19  03:05PM                 1024 file name.txt", 1, "file name.txt", "12-01-19 03:05PM", 1024, 0, 0},
        // Refused: too short for the Unix form, missing tokens, garbage sizes.
        {"total 12", 0, "", "", 0, 0, 0},
        {"drwxr-xr-x 2 a b 4096 Jan  1 2010 x", 0, "", "", 0, 1, 0},
        {"", 0, "", "", 0, 0, 0},
        {"-rw-r--r--   1 ftp      ftp        12x4 Mar  3  2021 readme.txt", 0, "", "", 0, 0, 0},
        {"-rw-r--r--   1 ftp      ftp        1234 Mar  3  2021 ", 0, "", "", 0, 0, 0},
        {"04-21-07  11:30AM       <DIR>", 0, "", "", 0, 1, 0},
        {"04-21-07  11:30AM       abc  x", 0, "", "", 0, 0, 0},
        {"garbage garbage garbage garbage garbage garbage garbage", 0, "", "", 0, 0, 0},
    };
    for (const Case& c : cases) {
        std::string name, date;
        long long sz = -1;
        int isdir = -1, islink = -1;
        int ok = ftp_decode(c.line, name, date, &sz, &isdir, &islink);
        EXPECT_EQ(ok, c.ok) << c.line;
        EXPECT_EQ(isdir, c.isdir) << c.line;
        if (!c.ok) continue;
        EXPECT_EQ(name, c.name) << c.line;
        EXPECT_EQ(date, c.date) << c.line;
        EXPECT_EQ(sz, c.size) << c.line;
        EXPECT_EQ(islink, c.islink) << c.line;
    }
    // A long name is cut at 200 by ftp_decode, kept whole by the full form.
    std::string name, date;
    long long sz = 0;
    int isdir = 0, islink = 0;
    ASSERT_EQ(ftp_decode(long_line.c_str(), name, date, &sz, &isdir, &islink), 1);
    EXPECT_EQ(name, long_name.substr(0, kFtpNameMax));
    ASSERT_EQ(ftp_decode_full(long_line.c_str(), name, date, &sz, &isdir, &islink), 1);
    EXPECT_EQ(name, long_name);
}

TEST(FtpDecode, PassiveReplies) {
    const struct {
        const char* reply;
        int ok;
        const char* host;
        int port;
    } cases[] = {
        {"227 Entering Passive Mode (10,0,0,1,200,13)", 1, "10.0.0.1", 51213},
        {"227 Entering Passive Mode (127,0,0,1,4,1).", 1, "127.0.0.1", 1025},
        {"227 Entering Passive Mode 127,0,0,1,4,1", 0, "", 0},
        {"227 (127,0,0,1,4)", 0, "", 0},
        {"227 (127,0,0,1,999,1)", 0, "", 0},
        {"227 (1,2,3)", 0, "", 0},
    };
    for (const auto& c : cases) {
        ftplink* l = nullptr;
        ftp_new(&l);
        std::unique_ptr<ftplink, FtpLinkFree> own(l);
        EXPECT_EQ(ftp_decode_pasv(l, c.reply), c.ok) << c.reply;
        if (!c.ok) continue;
        EXPECT_EQ(l->passive_host, c.host);
        EXPECT_EQ(l->passive_port, c.port);
    }
}

}  // namespace
}  // namespace korv
