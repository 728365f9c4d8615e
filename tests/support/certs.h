// Test key material made at run time: a certificate authority, a server and a client signed by
// it, a client signed by a stranger authority, and a key that fits none of the certificates.
#pragma once

#include <string>

namespace korv::test {

// A temporary directory removed with everything in it when the object goes.
class TempDir {
  public:
    explicit TempDir(const char* stem = "korv");
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::string& path() const { return path_; }
    std::string file(const std::string& name) const { return path_ + "/" + name; }

  private:
    std::string path_;
};

struct TestPki {
    std::string dir;
    std::string ca_cert;          // rootCA.pem: the authority clients are checked against
    std::string server_cert, server_key;
    std::string client_cert, client_key;
    std::string stranger_cert, stranger_key;  // a client signed by another authority
    std::string mismatched_key;               // fits none of the certificates
};

// Writes the whole set into `dir`. Returns false (with a gtest failure) on any error.
bool make_test_pki(const std::string& dir, TestPki& out);

}  // namespace korv::test
