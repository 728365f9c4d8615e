// Reading a password from standard input without echoing it.
#include "base/secret.h"

#include <termios.h>
#include <unistd.h>

#include <cstdio>
#include <iostream>

namespace korv {

bool read_secret(const char* prompt, std::string& out) {
    bool tty = ::isatty(0);
    struct termios old {};
    if (tty) {
        std::fputs(prompt, stderr);
        std::fflush(stderr);
        ::tcgetattr(0, &old);
        struct termios quiet = old;
        quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO);
        ::tcsetattr(0, TCSAFLUSH, &quiet);
    }
    bool got = static_cast<bool>(std::getline(std::cin, out));
    if (tty) {
        ::tcsetattr(0, TCSAFLUSH, &old);
        std::fputs("\n", stderr);
    }
    if (!out.empty() && out.back() == '\r') out.pop_back();
    return got;
}

}  // namespace korv
