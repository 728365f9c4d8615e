// Reading a password from standard input: on a terminal with a prompt on
// standard error and the echo off, otherwise the first line as it comes, so
// that scripts and installers can pipe it in.
#pragma once

#include <string>

namespace korv {

// One line (a trailing CR dropped) into `out`; false at end of input.
bool read_secret(const char* prompt, std::string& out);

}  // namespace korv
