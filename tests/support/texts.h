// Small helpers many end-to-end tests share: a password hash as the users file
// keeps it, and a whole file read into a string.
#pragma once

#include <string>

namespace korv::test {

// A SHA-512 crypt hash of `pass` with a fresh salt ("" if none can be made).
std::string hash_of(const char* pass);
// The bytes of `path` ("" when it cannot be read).
std::string slurp(const std::string& path);

}  // namespace korv::test
