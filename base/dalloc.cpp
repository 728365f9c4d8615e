// The tracking allocator. Each block is [head guard][caller's bytes][tail
// guard]; a side table of live blocks (under its own lock, since it serves
// before the numbered locks exist) keeps the place and size, so that a
// double free is found without touching freed memory.
#include "base/dalloc.h"

#include <algorithm>
#include <atomic>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <unordered_map>
#include <utility>
#include <vector>

#include "base/fmt.h"
#include "base/report.h"

namespace korv {

namespace {

constexpr size_t kHeadGuard = 16;  // keeps the caller's bytes 16-aligned
constexpr size_t kTailGuard = 8;
constexpr unsigned char kHeadByte = 0xA5;
constexpr unsigned char kTailByte = 0x5A;

struct Place {
    const char* file;
    int line;
    size_t size;
};

struct Registry {
    std::mutex mu;
    std::unordered_map<const void*, Place> live;
    DallocStats stats;
};

Registry& registry() {
    static Registry* r = new Registry();  // never destroyed: frees may come late in exit
    return *r;
}

std::atomic<DallocLogFn> g_log{nullptr};

DallocLogFn logger() {
    DallocLogFn f = g_log.load(std::memory_order_relaxed);
    return f ? f : &base_report;
}

unsigned char* base_of(const void* p) {
    return static_cast<unsigned char*>(const_cast<void*>(p)) - kHeadGuard;
}

bool guards_ok(const void* p, size_t size) {
    const unsigned char* b = base_of(p);
    for (size_t i = 0; i < kHeadGuard; ++i)
        if (b[i] != kHeadByte) return false;
    const unsigned char* t = b + kHeadGuard + size;
    for (size_t i = 0; i < kTailGuard; ++i)
        if (t[i] != kTailByte) return false;
    return true;
}

[[noreturn]] void dalloc_fatal(const char* file, int line, const char* text) {
    const std::string msg = strfmt("d_alloc fatal at %s:%d: %s\n", file, line, text);
    fputs(msg.c_str(), stderr);
    base_report("%s", msg.c_str());
    abort();
}

// Every broken invariant of the allocator ends here, with the caller's place.
#define DALLOC_FATAL(file, line, ...) dalloc_fatal((file), (line), strfmt(__VA_ARGS__).c_str())

void* track(unsigned char* raw, size_t n, const char* file, int line) {
    memset(raw, kHeadByte, kHeadGuard);
    memset(raw + kHeadGuard + n, kTailByte, kTailGuard);
    void* p = raw + kHeadGuard;
    Registry& r = registry();
    std::lock_guard<std::mutex> lock(r.mu);
    r.live.emplace(p, Place{file, line, n});
    DallocStats& s = r.stats;
    ++s.blocks;
    s.bytes += static_cast<long long>(n);
    ++s.allocs;
    s.peak_blocks = std::max(s.peak_blocks, s.blocks);
    s.peak_bytes = std::max(s.peak_bytes, s.bytes);
    return p;
}

// Live blocks summed by place, largest first.
std::vector<std::pair<Place, long>> by_place(Registry& r) {
    std::map<std::pair<const char*, int>, std::pair<long, size_t>> sums;
    for (const auto& [p, place] : r.live) {
        auto& sum = sums[{place.file, place.line}];
        ++sum.first;
        sum.second += place.size;
    }
    std::vector<std::pair<Place, long>> out;
    out.reserve(sums.size());
    for (const auto& [where, sum] : sums)
        out.push_back({Place{where.first, where.second, sum.second}, sum.first});
    std::sort(out.begin(), out.end(), [](const auto& a, const auto& b) {
        if (a.first.size != b.first.size) return a.first.size > b.first.size;
        const int c = strcmp(a.first.file, b.first.file);
        return c != 0 ? c < 0 : a.first.line < b.first.line;
    });
    return out;
}

}  // namespace

void d_malloc_init(DallocLogFn log) {
    g_log.store(log, std::memory_order_relaxed);
    registry();
}

void d_malloc_exit() {
    std::vector<std::string> lines;
    {
        Registry& r = registry();
        std::lock_guard<std::mutex> lock(r.mu);
        const DallocStats& s = r.stats;
        lines.push_back(strfmt("d_malloc: %ld blocks (%lld bytes) still in use, peak %ld blocks (%lld bytes)\n",
                               s.blocks, s.bytes, s.peak_blocks, s.peak_bytes));
        for (const auto& [place, count] : by_place(r))
            lines.push_back(strfmt("d_malloc: %s:%d %ld blocks %zu bytes\n", place.file, place.line, count,
                                   place.size));
    }
    // Logged outside the lock, so that the log may allocate.
    for (const std::string& l : lines) logger()("%s", l.c_str());
}

void* d_malloc_debug(size_t n, const char* file, int line) {
    if (n > SIZE_MAX - kHeadGuard - kTailGuard) return nullptr;
    auto* raw = static_cast<unsigned char*>(malloc(kHeadGuard + n + kTailGuard));
    if (raw == nullptr) return nullptr;
    return track(raw, n, file, line);
}

void* d_calloc_debug(size_t n, size_t size, const char* file, int line) {
    if (size != 0 && n > SIZE_MAX / size) return nullptr;
    void* p = d_malloc_debug(n * size, file, line);
    if (p) memset(p, 0, n * size);
    return p;
}

char* d_strdup_debug(const char* s, const char* file, int line) {
    if (s == nullptr) return nullptr;
    const size_t n = strlen(s) + 1;
    auto* p = static_cast<char*>(d_malloc_debug(n, file, line));
    if (p) memcpy(p, s, n);
    return p;
}

void d_free_debug(void* p, const char* file, int line) {
    if (p == nullptr) return;
    Place place{};
    {
        Registry& r = registry();
        std::lock_guard<std::mutex> lock(r.mu);
        auto it = r.live.find(p);
        if (it == r.live.end()) {
            // Nothing of the block is read: it may be gone already.
            DALLOC_FATAL(file, line, "d_free of %p, which is not a live block (freed twice?)", p);
        }
        place = it->second;
        r.live.erase(it);
        --r.stats.blocks;
        r.stats.bytes -= static_cast<long long>(place.size);
        ++r.stats.frees;
    }
    if (!guards_ok(p, place.size)) {
        DALLOC_FATAL(file, line, "d_free of %p: guard overwritten (block of %zu bytes from %s:%d)", p,
                     place.size, place.file, place.line);
    }
    free(base_of(p));
}

int d_check() {
    std::vector<std::string> lines;
    int bad = 0;
    {
        Registry& r = registry();
        std::lock_guard<std::mutex> lock(r.mu);
        for (const auto& [p, place] : r.live) {
            if (guards_ok(p, place.size)) continue;
            ++bad;
            lines.push_back(strfmt("d_check: block %p of %zu bytes from %s:%d has an overwritten guard\n", p,
                                   place.size, place.file, place.line));
        }
        lines.push_back(strfmt("d_check: %ld blocks (%lld bytes) in use, %d damaged\n", r.stats.blocks,
                               r.stats.bytes, bad));
    }
    for (const std::string& l : lines) logger()("%s", l.c_str());
    return bad;
}

DallocStats d_stats() {
    Registry& r = registry();
    std::lock_guard<std::mutex> lock(r.mu);
    return r.stats;
}

std::string d_report(int max_places) {
    Registry& r = registry();
    std::lock_guard<std::mutex> lock(r.mu);
    const DallocStats& s = r.stats;
    std::string out = strfmt("blocks %ld bytes %lld peak_blocks %ld peak_bytes %lld allocs %lld frees %lld\n",
                             s.blocks, s.bytes, s.peak_blocks, s.peak_bytes, s.allocs, s.frees);
    int shown = 0;
    for (const auto& [place, count] : by_place(r)) {
        if (shown++ >= max_places) break;
        strfmt_append(out, "%s:%d %ld %zu\n", place.file, place.line, count, place.size);
    }
    return out;
}

}  // namespace korv
