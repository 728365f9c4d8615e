// SHA-1, base64 and constant-time comparison over OpenSSL.
#include "net/digest.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>

namespace korv {

namespace {

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

int b64_value(unsigned char c) {
    if (c >= 'A' && c <= 'Z') return c - 'A';
    if (c >= 'a' && c <= 'z') return c - 'a' + 26;
    if (c >= '0' && c <= '9') return c - '0' + 52;
    if (c == '+') return 62;
    if (c == '/') return 63;
    return -1;
}

}  // namespace

std::string sha1_raw(std::string_view data) {
    unsigned char md[EVP_MAX_MD_SIZE];
    unsigned int n = 0;
    if (EVP_Digest(data.data(), data.size(), md, &n, EVP_sha1(), nullptr) != 1) return {};
    return std::string(reinterpret_cast<const char*>(md), n);
}

std::string base64_encode(std::string_view data) {
    std::string out;
    out.reserve((data.size() + 2) / 3 * 4);
    size_t i = 0;
    for (; i + 2 < data.size(); i += 3) {
        unsigned v = static_cast<unsigned char>(data[i]) << 16 | static_cast<unsigned char>(data[i + 1]) << 8 |
                     static_cast<unsigned char>(data[i + 2]);
        out += kAlphabet[v >> 18 & 63];
        out += kAlphabet[v >> 12 & 63];
        out += kAlphabet[v >> 6 & 63];
        out += kAlphabet[v & 63];
    }
    if (size_t rest = data.size() - i; rest > 0) {
        unsigned v = static_cast<unsigned char>(data[i]) << 16;
        if (rest == 2) v |= static_cast<unsigned char>(data[i + 1]) << 8;
        out += kAlphabet[v >> 18 & 63];
        out += kAlphabet[v >> 12 & 63];
        out += rest == 2 ? kAlphabet[v >> 6 & 63] : '=';
        out += '=';
    }
    return out;
}

int base64_decode(std::string_view text, std::string& out, size_t max) {
    out.clear();
    while (!text.empty() && text.back() == '=') text.remove_suffix(1);
    if (text.size() % 4 == 1) return -1;
    if (text.size() / 4 * 3 + (text.size() % 4 ? text.size() % 4 - 1 : 0) > max) return -1;
    unsigned acc = 0;
    int bits = 0;
    for (unsigned char c : text) {
        int v = b64_value(c);
        if (v < 0) return -1;
        acc = (acc << 6 | static_cast<unsigned>(v)) & 0xFFFFFF;
        bits += 6;
        if (bits >= 8) {
            bits -= 8;
            out += static_cast<char>(acc >> bits & 0xFF);
        }
    }
    return static_cast<int>(out.size());
}

int secret_equal(std::string_view a, std::string_view b) {
    if (a.size() != b.size()) return 0;
    return a.empty() || CRYPTO_memcmp(a.data(), b.data(), a.size()) == 0 ? 1 : 0;
}

}  // namespace korv
