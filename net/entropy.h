// Connection data folded into the TLS library's random pool. Every socket,
// connection and handshake adds a few bytes; each thread gathers them and
// hands them over in one RAND_seed per kEntropyPool bytes, because every
// RAND_seed reseeds the library's one primary generator under its lock, and
// hundreds of sessions starting at once queued on it (the acceptor waited up
// to 90 us for each new channel).
#pragma once

#include <cstddef>

namespace korv {

inline constexpr size_t kEntropyPool = 256;

void entropy_add(const void* p, size_t n);

}  // namespace korv
