// The foundation's error reports and the logger they go to.
#include "base/report.h"

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <string>

#include "base/fmt.h"

namespace korv {
namespace {

std::atomic<ReportFn> g_report{nullptr};

}  // namespace

void base_set_report(ReportFn fn) { g_report.store(fn, std::memory_order_release); }

int base_report(const char* format, ...) {
    va_list ap;
    va_start(ap, format);
    std::string text = vstrfmt(format, ap);
    va_end(ap);
    if (ReportFn fn = g_report.load(std::memory_order_acquire)) {
        fn("%s", text.c_str());
    } else {
        fputs(text.c_str(), stderr);
    }
    return 1;
}

}  // namespace korv
