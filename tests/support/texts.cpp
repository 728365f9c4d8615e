// Password hashes and file contents for the tests.
#include "tests/support/texts.h"

#include <crypt.h>

#include <fstream>
#include <sstream>

namespace korv::test {

std::string hash_of(const char* pass) {
    char salt[CRYPT_GENSALT_OUTPUT_SIZE] = {};
    crypt_data cd{};
    if (crypt_gensalt_rn("$6$", 0, nullptr, 0, salt, sizeof salt) == nullptr) return "";
    const char* h = crypt_rn(pass, salt, &cd, sizeof cd);
    return h != nullptr ? h : "";
}

std::string slurp(const std::string& path) {
    std::stringstream ss;
    ss << std::ifstream(path, std::ios::binary).rdbuf();
    return ss.str();
}

time_t local_time(int year, int mon, int day, int h, int m, int s) {
    tm t{};
    t.tm_year = year - 1900;
    t.tm_mon = mon - 1;
    t.tm_mday = day;
    t.tm_hour = h;
    t.tm_min = m;
    t.tm_sec = s;
    t.tm_isdst = -1;
    return mktime(&t);
}

}  // namespace korv::test
