// Passive data commands for the tests.
#include "tests/support/xfer.h"

#include <cstdio>

namespace korv::test {

Xfer run(FtpClient& c, const std::string& line, const std::string* upload) {
    Xfer x;
    std::string r = c.cmd("PASV");
    unsigned h1, h2, h3, h4, p1, p2;
    if (sscanf(r.c_str(), "227 Entering Passive Mode (%u,%u,%u,%u,%u,%u)", &h1, &h2, &h3, &h4, &p1, &p2) != 6) {
        x.first = r;
        return x;
    }
    FtpClient d;
    EXPECT_TRUE(d.connect(static_cast<int>(p1 * 256 + p2)));
    x.first = c.cmd(line);
    if (x.first.compare(0, 3, "150") != 0) return x;
    if (upload) {
        EXPECT_TRUE(d.send_raw(*upload));
        d.close();
    } else {
        x.data = d.read_raw(60000, size_t{1} << 30);
    }
    x.last = c.reply(60000);
    return x;
}

}  // namespace korv::test
