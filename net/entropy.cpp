// The per-thread entropy gatherer.
#include "net/entropy.h"

#include <openssl/rand.h>

#include <cstring>

namespace korv {

void entropy_add(const void* p, size_t n) {
    thread_local unsigned char pool[kEntropyPool];
    thread_local size_t used = 0;
    const auto* b = static_cast<const unsigned char*>(p);
    while (n > 0) {
        size_t take = n < kEntropyPool - used ? n : kEntropyPool - used;
        std::memcpy(pool + used, b, take);
        used += take;
        b += take;
        n -= take;
        if (used == kEntropyPool) {
            RAND_seed(pool, static_cast<int>(used));
            used = 0;
        }
    }
}

}  // namespace korv
