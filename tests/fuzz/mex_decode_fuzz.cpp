// Feeds arbitrary reply lines to the reading of a module's answer: the user check of mex_check
// and mex_decode of every field a login reads, in the login's order. No value may exceed its
// bound or hold a quote, and each field found must leave the line shorter.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "server/auth/mex_auths.h"

namespace {

void check(bool ok) {
    if (!ok) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string line(reinterpret_cast<const char*>(data), size);
    std::string word;
    int named = korv::mex_reply_names_user(line, "fred", word);
    check(!named || word == "fred");
    check(word.size() <= static_cast<size_t>(korv::kMexFieldMax));

    static const char* const kFields[] = {"groups",     "ftpuid", "ftpgid",  "ftpquota",     "ftpfromip",
                                          "dailyquota", "tohost", "ftphome", "accountstatus"};
    for (const char* f : kFields) {
        std::string value;
        size_t before = line.size();
        int found = korv::mex_decode(line, f, value);
        check(value.size() <= static_cast<size_t>(korv::kMexFieldMax));
        check(value.find('"') == std::string::npos);
        check(found ? line.size() < before : line.size() == before && value.empty());
    }
    return 0;
}
