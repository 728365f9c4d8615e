// Feeds arbitrary bytes to the LIST line parser and to the mirror's reading
// of it: nothing may read outside the line, a name is never longer than the
// line it came from (nor than the cut of the short form), and a name the
// mirror accepts can never step out of a directory.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "client/ftplib.h"
#include "server/mirror/mirror.h"

namespace {

void check(bool ok) {
    if (!ok) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string line(reinterpret_cast<const char*>(data), size);
    std::string name, date;
    long long sz = 0;
    int isdir = 0, islink = 0;
    if (korv::ftp_decode_full(line.c_str(), name, date, &sz, &isdir, &islink)) {
        check(!name.empty() && name.size() <= line.size());
        check(sz >= 0);
        if (korv::mirror_name_ok(name)) {
            check(name != "." && name != "..");
            check(name.find('/') == std::string::npos && name.find('\\') == std::string::npos);
            check(korv::mirror_inside("/base", korv::mirror_fixslash("/base/" + name)) == 1);
        }
        korv::date_to_time(date.c_str());
    }
    if (korv::ftp_decode(line.c_str(), name, date, &sz, &isdir, &islink))
        check(name.size() <= static_cast<size_t>(korv::kFtpNameMax));
    std::string path = line;
    korv::remove_path(path, "/pub");
    check(path.size() <= line.size());
    return 0;
}
