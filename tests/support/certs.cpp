// Test key material: one call makes the authority, the certificates and the keys of a TLS test.
#include "tests/support/certs.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>

#include "net/certgen.h"

namespace korv::test {

TempDir::TempDir(const char* stem) {
    std::string tpl = (std::filesystem::temp_directory_path() / (std::string(stem) + "-XXXXXX")).string();
    if (char* p = ::mkdtemp(tpl.data())) path_ = p;
    EXPECT_FALSE(path_.empty()) << "mkdtemp failed for " << tpl;
}

TempDir::~TempDir() {
    std::error_code ec;
    if (!path_.empty()) std::filesystem::remove_all(path_, ec);
}

bool make_test_pki(const std::string& dir, TestPki& out) {
    std::string why;
    CertKey ca, server, client, other_ca, stranger, loose;
    bool ok = certgen_make(ca, "Korvane Test CA", nullptr, 1, 2, why) &&
              certgen_make(server, "localhost", &ca, 0, 2, why) &&
              certgen_make(client, "test client", &ca, 0, 2, why) &&
              certgen_make(other_ca, "Stranger CA", nullptr, 1, 2, why) &&
              certgen_make(stranger, "stranger client", &other_ca, 0, 2, why) &&
              certgen_make(loose, "loose key", nullptr, 0, 2, why);
    out.dir = dir;
    out.ca_cert = dir + "/rootCA.pem";
    out.server_cert = dir + "/server_cert.pem";
    out.server_key = dir + "/server_priv.pem";
    out.client_cert = dir + "/client_cert.pem";
    out.client_key = dir + "/client_priv.pem";
    out.stranger_cert = dir + "/stranger_cert.pem";
    out.stranger_key = dir + "/stranger_priv.pem";
    out.mismatched_key = dir + "/mismatched_priv.pem";
    ok = ok && certgen_write_cert(ca, out.ca_cert, why) && certgen_write_cert(server, out.server_cert, why) &&
         certgen_write_key(server, out.server_key, why) && certgen_write_cert(client, out.client_cert, why) &&
         certgen_write_key(client, out.client_key, why) && certgen_write_cert(stranger, out.stranger_cert, why) &&
         certgen_write_key(stranger, out.stranger_key, why) && certgen_write_key(loose, out.mismatched_key, why);
    EXPECT_TRUE(ok) << why;
    return ok;
}

}  // namespace korv::test
