// Feeds arbitrary bytes to the transfer-log line reader and to the report's
// address list: a kept transfer's fields must come from the line and fit it,
// and no accepted address may hold a byte that could end or split an SMTP
// command.
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "server/report/ereport.h"
#include "server/report/xferlog.h"

namespace {

void check(bool ok) {
    if (!ok) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string text(reinterpret_cast<const char*>(data), size);
    korv::XferFilter f;
    f.sec_from = 0;
    f.sec_to = 0x7fffffff;
    korv::EreportDataUnit u;
    const std::string line = text.substr(0, text.find('\0'));
    if (korv::ereport_add_line(line.c_str(), f, u)) {
        check(u.filename.size() < line.size() && u.filesize.size() < line.size());
        check(u.size >= 0 && u.secs >= 0);
        check(u.uldl == 0 || u.uldl == 1);
    }
    std::vector<std::string> to;
    std::string reason;
    if (korv::ereport_recipients(text, to, reason)) {
        check(!to.empty() && to.size() <= static_cast<size_t>(korv::kEreportRecipientsMax));
        for (const std::string& a : to)
            for (unsigned char ch : a) check(ch > 32 && ch != 127 && ch != '<' && ch != '>');
    }
    return 0;
}
