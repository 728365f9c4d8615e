// One data command over a fresh passive connection, as the end-to-end tests
// run uploads, downloads and listings.
#pragma once

#include <string>

#include "tests/support/korv_server.h"

namespace korv::test {

struct Xfer {
    std::string first, data, last;  // the reply to the command, the bytes read, the closing reply
};

// PASV, a data connection, then `line`: sends `upload` and closes, or reads
// all the server sends. A PASV that fails leaves its reply in `first`.
Xfer run(FtpClient& c, const std::string& line, const std::string* upload = nullptr);

}  // namespace korv::test
