// Errors the foundation reports (a thread that cannot start, a scan handle
// misused, a header line with too many tokens). They go to whatever logger the
// layer above installs, the main log in the server, and to standard error
// until one is installed: the ground includes nothing above it.
#pragma once

namespace korv {

using ReportFn = int (*)(const char* format, ...);

// Installs `fn` (null: back to standard error).
void base_set_report(ReportFn fn);
// Formats and hands the text to the installed logger. Returns 1.
int base_report(const char* format, ...) __attribute__((format(printf, 1, 2)));

}  // namespace korv
