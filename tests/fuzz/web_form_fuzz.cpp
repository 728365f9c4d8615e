// Feeds arbitrary bytes to the query and form decoders: the first byte picks
// where the text splits into a request target and a form body. Names and
// query values stay within their bounds, and no decoded text grows.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "common/emsg.h"
#include "server/admin/webio.h"

namespace {

void check(bool ok) {
    if (!ok) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static bool ready = [] {
        korv::emsg_open("/tmp/fuzz_web_form.log");
        korv::emsg_setlvl("error");
        return true;
    }();
    (void)ready;
    if (size == 0) return 0;
    size_t cut = data[0] % size;
    std::string ref(reinterpret_cast<const char*>(data) + 1, cut > 0 ? cut - 1 : 0);
    std::string body(reinterpret_cast<const char*>(data) + (cut > 0 ? cut : 1), size - (cut > 0 ? cut : 1));
    ref.resize(std::char_traits<char>::length(ref.c_str()));    // C strings, as the
    body.resize(std::char_traits<char>::length(body.c_str()));  // decoders take them

    korv::WinkPtr w = korv::wink_new();
    korv::web_decode_ref(w.get(), ref.c_str());
    korv::web_decode_content(w.get(), body.c_str());
    check(w->cgi.size() <= ref.size() && ref.compare(0, w->cgi.size(), w->cgi) == 0);
    for (const korv::Pair* p = w->query.get(); p != nullptr; p = p->next.get())
        check(p->var.size() <= static_cast<size_t>(korv::kWebQueryNameMax) &&
              p->val.size() <= static_cast<size_t>(korv::kWebQueryValueMax) && p->var.size() + p->val.size() < ref.size());
    for (const korv::Pair* p = w->form.get(); p != nullptr; p = p->next.get())
        check(p->var.size() <= static_cast<size_t>(korv::kWebQueryNameMax) && p->var.size() + p->val.size() < body.size());
    // Inputs read what the decoders kept, whole (a decoded NUL included): the
    // form's value where the query has none of that name.
    auto find = [](const korv::Pair* p, const std::string& var) -> const std::string* {
        for (; p != nullptr; p = p->next.get())
            if (p->var == var) return &p->val;
        return nullptr;
    };
    for (const korv::Pair* p = w->form.get(); p != nullptr; p = p->next.get()) {
        const std::string* q = find(w->query.get(), p->var);
        if (q == nullptr || q->empty()) check(korv::web_input(w.get(), p->var) == *find(w->form.get(), p->var));
    }
    std::string bf = body;
    korv::web_unescape_url(bf.data(), static_cast<int>(bf.size()));
    check(std::char_traits<char>::length(bf.c_str()) <= body.size());
    return 0;
}
