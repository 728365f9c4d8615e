// Feeds arbitrary bytes to the in-place tokenisers, the line walker and the
// text escapes: none may touch memory outside the text, every token array
// must end in null within its bound, and the walker must leave the buffer
// whole.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "base/lib.h"

namespace {

void check(bool ok) {
    if (!ok) std::abort();
}

void split_all(const std::string& text, int tmax) {
    using Splitter = int (*)(char*, char**, const char*, int);
    static const Splitter splitters[] = {korv::token_split, korv::token_split2, korv::quoted_token_split,
                                         korv::quoted_token_split_rm_quot,
                                         korv::quoted_token_split2_rm_quot};
    std::vector<char*> p(static_cast<size_t>(tmax));
    for (Splitter f : splitters) {
        std::string buf = text;
        int n = f(buf.data(), p.data(), " |\t", tmax);
        check(n >= 0 && n < tmax && p[static_cast<size_t>(n)] == nullptr);
        for (int i = 0; i < n; i++)
            check(p[static_cast<size_t>(i)] >= buf.data() && p[static_cast<size_t>(i)] <= buf.data() + buf.size());
    }
    for (auto f : {korv::token_quote, korv::lib_token_comma}) {
        std::string buf = text;
        int n = f(buf.data(), p.data(), tmax);
        check(n >= 0 && n < tmax && p[static_cast<size_t>(n)] == nullptr);
    }
}

void walk_all(const std::string& text) {
    for (int mode = 0; mode < 3; mode++) {
        std::string buf = text;
        korv::Strlines v;
        korv::str_lines_start(&v, buf.data(), static_cast<int>(buf.size()));
        int goteol = 0, ended_with_cr = 0;
        char tmp[korv::kLineTmp + 1];
        for (int guard = 0; guard <= static_cast<int>(text.size()) + 1; guard++) {
            char* l = mode == 0   ? korv::str_lines_next(&v)
                      : mode == 1 ? korv::str_lines_next_crlf(&v, &goteol)
                                  : korv::str_lines_next_any(&v, &goteol, &ended_with_cr, tmp);
            if (!l) break;
            check(std::strlen(l) <= text.size() + 2);
        }
        korv::str_lines_end(&v);
        check(buf == text);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0 || size > 4096) return 0;
    int tmax = 1 + data[0] % 12;
    std::string text(reinterpret_cast<const char*>(data) + 1, size - 1);
    std::string cstr(text.c_str());  // the tokenisers see text up to its first zero

    split_all(cstr, tmax);
    walk_all(text);

    std::string encoded = korv::lib_url_encode(std::string_view(cstr));
    std::string decoded = korv::lib_url_decode(std::string_view(cstr));
    check(decoded.size() <= cstr.size());
    char bf[korv::kUrlDecodeMax + 1];
    korv::lib_url_decode(bf, cstr.c_str());
    check(std::strlen(bf) <= static_cast<size_t>(korv::kUrlDecodeMax));

    std::string no_cr;
    for (char c : text)
        if (c != '\r') no_cr += c;
    std::string stored = korv::lib_cr_encode(text);
    check(stored.find('\n') == std::string::npos);
    if (stored.size() + 2 <= static_cast<size_t>(korv::kCrEncodeMax)) check(korv::lib_cr_decode(stored) == no_cr);

    char out[korv::kBufSize];
    korv::lib_get_word(out, cstr.c_str(), tmax);
    korv::lib_get_rest(out, cstr.c_str(), tmax);
    korv::lib_trim_qspaces(cstr.c_str(), out);
    (void)korv::lib_str_hash(cstr.c_str(), 500);
    return 0;
}
