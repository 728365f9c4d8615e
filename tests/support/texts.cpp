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

}  // namespace korv::test
