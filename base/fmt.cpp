// Formatting helpers: vsnprintf sized in two passes, never truncating.
#include "base/fmt.h"

#include <cstdio>

namespace korv {

namespace {

void vappend(std::string& out, const char* format, va_list ap) {
    char small[512];
    va_list again;
    va_copy(again, ap);
    int n = std::vsnprintf(small, sizeof small, format, ap);
    if (n < 0) {
        va_end(again);
        return;
    }
    if (static_cast<size_t>(n) < sizeof small) {
        out.append(small, static_cast<size_t>(n));
    } else {
        size_t at = out.size();
        out.resize(at + static_cast<size_t>(n) + 1);
        std::vsnprintf(out.data() + at, static_cast<size_t>(n) + 1, format, again);
        out.resize(at + static_cast<size_t>(n));
    }
    va_end(again);
}

}  // namespace

std::string vstrfmt(const char* format, va_list ap) {
    std::string out;
    vappend(out, format, ap);
    return out;
}

std::string strfmt(const char* format, ...) {
    va_list ap;
    va_start(ap, format);
    std::string out = vstrfmt(format, ap);
    va_end(ap);
    return out;
}

std::string& strfmt_append(std::string& out, const char* format, ...) {
    va_list ap;
    va_start(ap, format);
    vappend(out, format, ap);
    va_end(ap);
    return out;
}

}  // namespace korv
