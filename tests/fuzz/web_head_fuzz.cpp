// Feeds arbitrary bytes as an admin request head: the decoder must stay
// inside the bytes it is given, keep every value within its bound, and leave
// cgi the part of the target before any '?'.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "common/emsg.h"
#include "common/mutex.h"
#include "server/admin/webio.h"

namespace {

void check(bool ok) {
    if (!ok) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static bool ready = [] {
        korv::mutex_init();
        korv::emsg_open("/tmp/fuzz_web_head.log");
        korv::emsg_setlvl("error");
        return true;
    }();
    (void)ready;
    // Exactly the bytes of the input, nothing after them to lean on.
    std::string bf(reinterpret_cast<const char*>(data), size);
    korv::WinkPtr w = korv::wink_new();
    int upto = static_cast<int>(size), nrest = 0;
    if (upto == 0) bf.push_back(0);  // an empty head is read up to its NUL
    int r = korv::web_decode_head(w.get(), bf.data(), &upto, &nrest);
    check(r == 0 || r == 1);
    check(w->contenttype.size() <= static_cast<size_t>(korv::kWebHeaderTextMax));
    check(w->agent.size() <= static_cast<size_t>(korv::kWebHeaderTextMax));
    check(w->hostname.size() < 1000);
    check(w->ref.size() <= size);
    check(w->ref.compare(0, w->cgi.size(), w->cgi) == 0);
    check(w->cgi.find('?') == std::string::npos || w->cgi == w->ref);
    for (const korv::Pair* p = w->query.get(); p != nullptr; p = p->next.get())
        check(p->var.size() <= static_cast<size_t>(korv::kWebQueryNameMax) &&
              p->val.size() <= static_cast<size_t>(korv::kWebQueryValueMax));
    size_t lines = 0;
    for (const korv::Wordlist* h = w->head.get(); h != nullptr; h = h->next.get()) {
        check(h->word.size() <= size);
        ++lines;
    }
    check(lines <= size);
    korv::web_same_origin(w.get());
    return 0;
}
