// The crash record: crash1.log to crash9.log in the working directory, the
// newest always followed by a gap, each holding the version and the tails of
// the logs that tell what happened.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

#include "base/fmt.h"
#include "common/emsg.h"
#include "common/emsg_files.h"
#include "server/monitor/monitor.h"
#include "server/monitor/monstate.h"

namespace korv {

namespace {

bool exists(const std::string& f) {
    struct stat st {};
    return stat(f.c_str(), &st) == 0;
}

std::string crash_name(int n) { return strfmt("crash%d.log", n); }

bool same_file(const std::string& a, const char* b) {
    struct stat sa {}, sb {};
    return b != nullptr && stat(a.c_str(), &sa) == 0 && stat(b, &sb) == 0 && sa.st_dev == sb.st_dev &&
           sa.st_ino == sb.st_ino;
}

}  // namespace

int crash_append_file(FILE* fout, const char* xname) {
    fprintf(fout, "\n----------------- WRITING FILE %s ----------------\n", xname);
    FILE* in = fopen(xname, "rb");
    if (in == nullptr) {
        fprintf(fout, "\n----  Cound not append file (%s) %s\n\n", xname, errtext(errno).c_str());
        return 0;
    }
    long start = 0;
    if (fseek(in, 0, SEEK_END) == 0) {
        long size = ftell(in);
        if (size > kCrashTailBytes) start = size - kCrashTailBytes;
    }
    fseek(in, start, SEEK_SET);
    if (start > 0) {
        // From the first whole line: the rest of the cut one is dropped.
        int ch;
        while ((ch = fgetc(in)) != EOF && ch != '\n') {
        }
    }
    char buf[4096];
    long copied = 0;
    size_t n;
    while (copied < kCrashCopyMax && (n = fread(buf, 1, sizeof buf, in)) > 0) {
        if (copied + static_cast<long>(n) > kCrashCopyMax) n = static_cast<size_t>(kCrashCopyMax - copied);
        fwrite(buf, 1, n, fout);
        copied += static_cast<long>(n);
    }
    fclose(in);
    return 1;
}

std::string crash_record(const char* fname) {
    int target = 1;
    for (int i = 1; i <= kCrashFilesMax; ++i) {
        if (!exists(crash_name(i))) {
            target = i;
            break;
        }
    }
    // The gap after the newest tells the next monitor (and a reader) where the series stands.
    remove(crash_name(target + 1).c_str());
    std::string out = crash_name(target);
    FILE* f = fopen(out.c_str(), "wb");
    if (f == nullptr) {
        emsg("Could not write crash record %s: %s\n", out.c_str(), errtext(errno).c_str());
        return "";
    }
    const MonitorState& st = monitor_state();
    fprintf(f, "    Version %s\r\n", st.progver.c_str());
    fprintf(f, "    Platform %s\r\n", kMonitorPlatform);
    if (fname != nullptr && *fname) crash_append_file(f, fname);
    for (const char* suffix : {".log", "2.log", ".err"}) {
        std::string x = st.progname + suffix;
        if (!same_file(x, fname)) crash_append_file(f, x.c_str());  // the given file is already there
    }
    crash_append_file(f, "mutex.log");
    crash_append_file(f, st.logname.c_str());
    crash_append_file(f, "startstop.log");
    fclose(f);
    imsg("Wrote crash record %s\n", out.c_str());
    return out;
}

}  // namespace korv
