// Checked printf-style formatting into std::string: the one way the server
// builds formatted text, so that the compiler checks every format string.
#pragma once

#include <cstdarg>
#include <string>

namespace korv {

std::string strfmt(const char* format, ...) __attribute__((format(printf, 1, 2)));
std::string vstrfmt(const char* format, va_list ap) __attribute__((format(printf, 1, 0)));

// Appends formatted text to `out`; returns `out`.
std::string& strfmt_append(std::string& out, const char* format, ...)
    __attribute__((format(printf, 2, 3)));

}  // namespace korv
