// The tracking allocator: raw blocks that remember the file and line that
// asked for them, with counts of what is in use, a report of live blocks by
// place for the status page, and guards that catch overruns and double frees.
// Ordinary objects use RAII types; this is for the places that need a raw
// tracked block and for the allocator's statistics.
#pragma once

#include <cstddef>
#include <string>

namespace korv {

// Where the allocator's reports go (imsg, emsg ...); null means emsg.
using DallocLogFn = int (*)(const char* format, ...);

void d_malloc_init(DallocLogFn log);
// Logs the blocks still live, by place, and what the process used at most.
void d_malloc_exit();

void* d_malloc_debug(size_t n, const char* file, int line);
void* d_calloc_debug(size_t n, size_t size, const char* file, int line);
char* d_strdup_debug(const char* s, const char* file, int line);
// Frees a block from the functions above; null is fine. A pointer that is
// not a live block (a double free) or a block whose guards were overwritten
// is logged with both places and the process aborts.
void d_free_debug(void* p, const char* file, int line);

// Checks the guards of every live block, logs each damaged one with its
// place and a summary line; returns the number of damaged blocks.
int d_check();

struct DALLOC_STATS {
    long blocks = 0;        // live now
    long long bytes = 0;    // asked for by the live blocks
    long peak_blocks = 0;
    long long peak_bytes = 0;
    long long allocs = 0;   // since start
    long long frees = 0;
};
using DallocStats = DALLOC_STATS;

DallocStats d_stats();

// Text for the status page: the totals, then one line per place with live
// blocks ("file:line blocks bytes"), largest first, `max_places` at most.
std::string d_report(int max_places);

}  // namespace korv

#define d_malloc(n) ::korv::d_malloc_debug((n), __FILE__, __LINE__)
#define d_calloc(n, size) ::korv::d_calloc_debug((n), (size), __FILE__, __LINE__)
#define d_strdup(s) ::korv::d_strdup_debug((s), __FILE__, __LINE__)
#define d_free(p) ::korv::d_free_debug((p), __FILE__, __LINE__)
