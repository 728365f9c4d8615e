// Numbered recursive locks: the lock table, the wait table, the timed take in
// one-second steps that notices the global limit, the crash report with the
// two-thread deadlock test, and the thin path that the log itself uses.
#include "common/mutex.h"

#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <mutex>
#include <thread>

#include "base/fmt.h"
#include "base/threads.h"
#include "common/emsg.h"

namespace korv {

namespace {

struct NamedLock {
    int number;
    const char* name;
};

// Numbers are stable: callers use them directly. Others are reserved.
constexpr NamedLock m_names[] = {
    {MUTEX_CLASS, "CLASS"},
    {MUTEX_MAIN, "MAIN"},
    {MUTEX_LINK, "LINK"},
    {MUTEX_EMSG, "EMSG"},
    {MUTEX_REPORT, "REPORT"},
    {MUTEX_DNS, "DNS"},
    {MUTEX_RECENT, "RECENT"},
    {MUTEX_WEB, "WEB"},
    {MUTEX_DAYS, "DAYS"},
    {MUTEX_MIRROR, "MIRROR"},
    {MUTEX_PASSWORD, "PASSWORD"},
    {MUTEX_SETEGID, "SETEGID"},
    {MUTEX_UNIX_THREAD_SAFE_DIRECTORY_SCANNING, "UNIX_THREAD_SAFE_DIRECTORY_SCANNING"},
    {MUTEX_SSHA, "SSHA"},
    {MUTEX_CREATE_THREAD_LIST, "CREATE_THREAD_LIST"},
    {MUTEX_MISC, "MISC"},
    {MUTEX_M_ANON_HAMMER, "M_ANON_HAMMER"},
    {MUTEX_LOOP, "LOOP"},
    {MUTEX_CURRENT_CONNECTIONS, "CURRENT_CONNECTIONS"},
    {MUTEX_PER_USERNAME_SETTINGS, "PER_USERNAME_SETTINGS"},
    {MUTEX_CHECK_LOOP, "CHECK_LOOP"},
    {MUTEX_PLOG, "PLOG"},
};

constexpr int kFreqSlots = 20000;      // frequency tables, by source line
constexpr int kStepMs = 1000;          // a waiter looks at the limit this often
constexpr long long kSlowHoldMs = 2000;
constexpr int kSlowWaitSec = 3;

// One numbered lock. Only the holder writes the holder's fields; others read
// them for reports alone, so relaxed atomics are enough.
struct Slot {
    std::atomic<Mutex*> m{nullptr};
    std::atomic<int> thid{-1};
    std::atomic<int> count{0};
    std::atomic<const char*> source{""};
    std::atomic<int> line{0};
    std::atomic<const char*> osource{""};
    std::atomic<int> oline{0};
    std::atomic<time_t> time{0};
    std::atomic<long long> start{0};
    std::atomic<long long> tot{0};
};

struct WaitRow {
    std::atomic<int> lock{0};
    std::atomic<int> thid{0};
    std::atomic<time_t> time{0};
    std::atomic<const char*> file{""};
    std::atomic<int> line{0};
};

Slot mutexes[kMutexSlots];
WaitRow th_wait[kMutexWaitRows];
std::atomic<int> mutex_freq[kFreqSlots];
std::atomic<const char*> mutex_freq_file[kFreqSlots];
std::atomic<long long> msg_line[kFreqSlots];

std::atomic<int> mutex_time{180000};
std::atomic<int> showdelay{1};
std::atomic<int> mutex_timing{MUTEX_MISC};
std::atomic<int> dieing{0};
std::atomic<int> die_th{-1};
std::atomic<int> mutex_fail_i{-1};
std::atomic<int> mutex_wanted{-1};
std::atomic<bool> crash_begun{false};
std::atomic<bool> limit_reported{false};

std::atomic<void (*)()> crash_hook{nullptr};
std::atomic<void (*)(const char*)> startstop_hook{nullptr};
std::atomic<const char* (*)()> main_status_hook{nullptr};

// State texts and slow-lock notes, written rarely.
struct Notes {
    std::mutex mx;
    std::string info[kMutexSlots];
    time_t itime[kMutexSlots] = {};
    std::string delay_wait;
    std::string delay_hold;
};

Notes& notes() {
    static Notes* const n = new Notes;  // never destroyed: read by a crash at any time
    return *n;
}

long long now_ms() {
    using namespace std::chrono;
    return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}

int mutex_hid(int thid) { return (thid < 0 ? -thid : thid) % kMutexWaitRows; }

const char* name_of(int i) {
    const char* n = mutex_name(i);
    return n != nullptr ? n : "";
}

const char* base_name(const char* path) {
    const char* b = path;
    for (const char* p = path; *p != '\0'; p++) {
        if (*p == '/' || *p == '\\') b = p + 1;
    }
    return b;
}

void startstop(const char* format, ...) __attribute__((format(printf, 1, 2)));
void startstop(const char* format, ...) {
    va_list ap;
    va_start(ap, format);
    std::string text = vstrfmt(format, ap);
    va_end(ap);
    if (auto fn = startstop_hook.load()) {
        fn(text.c_str());
    } else {
        std::fputs(text.c_str(), stderr);
    }
}

const char* main_status() {
    auto fn = main_status_hook.load();
    const char* s = fn != nullptr ? fn() : nullptr;
    return s != nullptr ? s : "";
}

[[noreturn]] void no_such_mutex(int i, const char* file, int line) {
    mutex_emsg("No such mutex %s %d %d\n", file, line, i);
    emsg_flush();
    std::abort();
}

void sleep_ms(int ms) { std::this_thread::sleep_for(std::chrono::milliseconds(ms)); }

void note_delay(std::string& note, std::string text) {
    std::lock_guard lk(notes().mx);
    note = std::move(text);
}

void clear_wait(int me, bool set_wanted, int i) {
    if (set_wanted) {
        int expected = i;
        mutex_wanted.compare_exchange_strong(expected, -1);
    }
    mutex_waiting(me, 0, i, "", 0);
}

}  // namespace

// ---------------------------------------------------------------- setup

void mutex_init() {
    for (const NamedLock& n : m_names) {
        Slot& s = mutexes[n.number];
        if (s.m.load() != nullptr) continue;
        s.thid = -1;
        s.count = 0;
        s.tot = 0;
        s.m = th_mutex_new_remember(n.name, __FILE__, __LINE__);
    }
}

void mutex_exit() {
    for (int i = 0; i < kMutexSlots; i++) {
        th_mutex_free(mutexes[i].m.exchange(nullptr));
        std::lock_guard lk(notes().mx);
        notes().info[i].clear();
    }
}

void mutex_set_timeout(int xseconds) { mutex_time = xseconds * 1000; }

void mutex_set_crash_hook(void (*fn)()) { crash_hook = fn; }
void mutex_set_startstop_hook(void (*fn)(const char*)) { startstop_hook = fn; }
void mutex_set_main_status_hook(const char* (*fn)()) { main_status_hook = fn; }

const char* mutex_name(int i) {
    for (const NamedLock& n : m_names) {
        if (n.number == i) return n.name;
    }
    return nullptr;
}

int mutex_holder(int i) { return i >= 0 && i < kMutexSlots ? mutexes[i].thid.load() : -1; }
int mutex_depth(int i) { return i >= 0 && i < kMutexSlots ? mutexes[i].count.load() : 0; }

// ---------------------------------------------------------------- take and release

void mutex_wait_debug(int i, const char* file, int line) { mutex_wait_timeoutx(i, 0, file, line); }

int mutex_wait_debug_timeout(int i, const char* file, int line, int tout) {
    return mutex_wait_timeoutx(i, tout, file, line);
}

int mutex_wait_timeoutx(int i, int tout, const char* file, int line) {
    int me = th_id();
    if (dieing.load() && die_th.load() == me) return 1;
    if (i < 0 || i >= kMutexSlots) no_such_mutex(i, file, line);
    mutex_freq[line % kFreqSlots].fetch_add(1, std::memory_order_relaxed);
    mutex_freq_file[line % kFreqSlots].store(file, std::memory_order_relaxed);

    Slot& s = mutexes[i];
    if (s.thid.load() == me) {
        s.count++;
        s.source = file;
        s.line = line;
        return 1;
    }
    Mutex* m = s.m.load();
    if (m == nullptr) {
        emsg("Mutexes are NULL so contniuing %d %s:%d\n", i, file, line);
        return 1;
    }

    mutex_waiting(me, 1, i, file, line);
    long long began = now_ms();
    long long waited = 0;
    bool set_wanted = false;
    while (!th_mutex_wait_remember(m, kStepMs, file, line)) {
        waited = now_ms() - began;
        if (i == mutex_fail_i.load()) {
            sleep_ms(15000);
            std::printf("CALLING EXIT AS WE WANTED THE SAME MUTEX THAT WE CRASHED ON");
            std::fflush(stdout);
            std::exit(0);
        }
        mutex_wanted = i;
        set_wanted = true;
        if (tout > 0 && waited >= static_cast<long long>(tout) * 1000) {
            clear_wait(me, set_wanted, i);
            return 0;
        }
        if (waited >= mutex_time.load()) {
            if (tout > 0) {
                clear_wait(me, set_wanted, i);
                return 0;
            }
            if (limit_reported.exchange(true)) {
                sleep_ms(8000);
                std::abort();
            }
            mutex_emsg("NEWCODE: Cannot get mutex, fatal problem, dieing %s %s:%d waited=%d\n", name_of(i),
                       file, line, static_cast<int>(waited));
            mutex_emsg("Currently held at (%s:%d) for %d seconds\n", s.source.load(), s.line.load(),
                       static_cast<int>(time(nullptr) - s.time.load()));
            mutex_emsg("Original Mutex Currently held at (%s:%d)\n", s.osource.load(), s.oline.load());
            std::string info = mutex_info(i);
            if (!info.empty()) mutex_emsg("Mutex state is (%s) %d\n", info.c_str(), i);
            mutex_emsg("mutex: main status %s\n", main_status());
            mutex_crash(i, file, line);
            std::abort();  // a crash already under way elsewhere: end here all the same
        }
    }
    clear_wait(me, set_wanted, i);

    int depth = ++s.count;
    if (depth != 1 && s.thid.load() != me && !dieing.load()) {
        emsg("Mutex allocated to another thread already %s %s:%d \n", name_of(i), file, line);
        mutex_crash(i, file, line);
    }
    if (depth == 1) {
        s.start = now_ms();
        s.osource = file;
        s.oline = line;
    }
    s.source = file;
    s.line = line;
    s.thid = me;
    s.time = time(nullptr);
    if (showdelay.load() && waited >= kSlowWaitSec * 1000 && i != MUTEX_LOOP) {
        note_delay(notes().delay_wait,
                   strfmt("Took %d seconds for mutex %s", static_cast<int>(waited / 1000), name_of(i)));
    }
    return 1;
}

void mutex_release_debug(int i, const char* file, int line) {
    int me = th_id();
    if (i < 0 || i >= kMutexSlots) no_such_mutex(i, file, line);
    if (i == mutex_fail_i.load()) {
        if (die_th.load() == me) return;
        sleep_ms(15000);
    }
    Slot& s = mutexes[i];
    Mutex* m = s.m.load();
    if (m == nullptr) return;  // before mutex_init a take made nothing to release

    int depth = --s.count;
    if (depth < 1) s.line = 0;
    if (depth == 0) {
        long long held = now_ms() - s.start.load();
        if (held > kSlowHoldMs) {
            note_delay(notes().delay_hold,
                       strfmt("Took %dmsec for mutex %s %s:%d", static_cast<int>(held), name_of(i), file, line));
        }
        s.tot += held;
        s.thid = -1;
        if (i == mutex_timing.load()) msg_line[line % kFreqSlots].fetch_add(held, std::memory_order_relaxed);
    }
    if (depth < 0) {
        if (!dieing.load()) {
            emsg("mutex SIGNAL, mutex released when not held\n");
            mutex_crash(i, file, line);
        }
        return;
    }
    if (depth == 0 && !th_mutex_release(m, file, line)) {
        if (dieing.load()) sleep_ms(15000);
        mutex_crash(i, file, line);
    }
}

// ---------------------------------------------------------------- the thin path

void mutex_wait_fast(int i, const char* file, int line) { mutex_wait_fast_timeout(i, 0, file, line); }

int mutex_wait_fast_timeout(int i, int tout, const char* file, int line) {
    if (i < 0 || i >= kMutexSlots) {
        std::fputs("No such mutex\n", stderr);
        std::abort();
    }
    int me = th_id();
    if (dieing.load()) {
        if (die_th.load() == me) return 1;
        sleep_ms(10000);
    }
    Mutex* m = mutexes[i].m.load();
    if (m == nullptr) return 1;  // before mutex_init, nothing to take
    int limit = tout > 0 ? tout : mutex_time.load();
    if (th_mutex_wait_remember(m, static_cast<unsigned>(limit), file, line)) return 1;
    if (tout == 0) {
        if (i == MUTEX_EMSG) {
            startstop("MUTEX CRASHING IN NASTY WAY EMSG %s:%d\n", file, line);
            emsg_disable_mutex(1);
            dieing = 1;
            die_th = me;
            mutex_emsg("FAST Cannot get mutex, fatal problem, dieing %s %s:%d waited=%d\n", name_of(i), file, line,
                       limit);
            mutex_crash(i, file, line);
        } else {
            emsg("Cannot get mutex, fatal problem, dieing %s %s:%d waited=%d\n", name_of(i), file, line, limit);
            emsg_flush();
        }
        std::abort();
    }
    std::string note = strfmt("Mutex %s waited %dmsec, held by %s:%d\n", name_of(i), limit, m->file.load(),
                              m->line.load());
    if (i == MUTEX_EMSG) {
        std::fputs(note.c_str(), stdout);  // the log itself is what is held
    } else {
        emsg("%s", note.c_str());
    }
    return 0;
}

void mutex_release_fast(int i, const char* file, int line) {
    if (i < 0 || i >= kMutexSlots) return;
    Mutex* m = mutexes[i].m.load();
    if (m == nullptr) return;
    if (th_mutex_release(m, file, line)) return;
    if (dieing.load()) return;  // the crashing thread passed without taking it
    std::fprintf(stderr, "Cannot free mutex, fatal problem, %s\n", name_of(i));
    std::abort();
}

// ---------------------------------------------------------------- assertions

void mutex_assert_gotx(int i, const char* file, int line) {
    if (i < 0 || i >= kMutexSlots) no_such_mutex(i, file, line);
    if (mutexes[i].m.load() == nullptr) return;
    if (mutexes[i].thid.load() == th_id()) return;
    startstop("MUTEX CRASHING IN NASTY WAY2 %s:%d\n", file, line);
    emsg("Assert got mutex %d in %s:%d failed\n", i, file, line);
    mutex_crash(i, file, line);
}

void mutex_assert_count_is_onex(int i, const char* file, int line) {
    if (i < 0 || i >= kMutexSlots) no_such_mutex(i, file, line);
    if (mutexes[i].m.load() == nullptr) return;
    if (mutexes[i].thid.load() != th_id()) {
        startstop("MUTEX CRASHING IN NASTY WAY3 %s:%d\n", file, line);
        emsg("mutex_assert_count_is_one %d in %s:%d failed. Wrong Thread\n", i, file, line);
        mutex_crash(i, file, line);
        return;
    }
    int count = mutexes[i].count.load();
    if (count != 1) {
        startstop("MUTEX CRASHING IN NASTY WAY4 %s:%d\n", file, line);
        emsg("mutex_assert_count_is_one %d in %s:%d failed. Count=%d\n", i, file, line, count);
        mutex_crash(i, file, line);
    }
}

// ---------------------------------------------------------------- the wait table and the crash

int mutex_waiting(int thid, int iswait, int m, const char* file, int line) {
    WaitRow& r = th_wait[mutex_hid(thid)];
    if (iswait) {
        r.thid = thid;
        r.time = time(nullptr);
        r.file = file;
        r.line = line;
        r.lock = m;
    } else if (r.thid.load() == thid) {
        r.lock = 0;
    }
    return 1;
}

int mutex_emsg(const char* format, ...) {
    va_list ap;
    va_start(ap, format);
    std::string text = vstrfmt(format, ap);
    va_end(ap);
    return emsg_dox(0, text.c_str());
}

void mutex_crash(int mi, const char* file, int line) {
    if (crash_begun.exchange(true)) {
        sleep_ms(1000);
        return;
    }
    int me = th_id();
    startstop("MUTEX CRASHING IN NASTY WAY5 %s:%d\n", file, line);
    emsg_disable_mutex(1);
    dieing = 1;
    die_th = me;

    bool valid = mi >= 0 && mi < kMutexSlots;
    const Slot& s = mutexes[valid ? mi : 0];
    mutex_emsg("mutex: main status %s - crash info %s:%d \n", main_status(), file, line);
    mutex_emsg("Currently Mutex held at (%s:%d)\n", s.source.load(), s.line.load());
    mutex_emsg("Original Mutex Currently held at (%s:%d)\n", s.osource.load(), s.oline.load());
    mutex_emsg("mutex info %s\n", valid ? mutex_info(mi).c_str() : "");
    mutex_emsg("mutex: thid%%5000 %d\n", me % 5000);
    startstop("Aborting due to mutex timeout (%s : %s line %d)\n", name_of(mi), file, line);

    time_t now = time(nullptr);
    for (int i = 0; i < kMutexSlots; i++) {
        const Slot& h = mutexes[i];
        if (h.m.load() == nullptr || h.thid.load() == -1) continue;
        mutex_emsg("Mutex[%s] held by %d %dsec %s:%d nref=%d %s:%d\n", name_of(i), h.thid.load(),
                   static_cast<int>(now - h.time.load()), h.source.load(), h.line.load(), h.count.load(),
                   h.osource.load(), h.oline.load());
    }

    // Only the cycle of two threads is found: the holder of the lock we want
    // waits for a lock that we hold.
    int holder = valid ? s.thid.load() : -1;
    if (holder != -1) {
        const WaitRow& r = th_wait[mutex_hid(holder)];
        int wants = r.thid.load() == holder ? r.lock.load() : 0;
        if (wants > 0 && wants < kMutexSlots && mutexes[wants].thid.load() == me) {
            mutex_emsg("DEADLOCK, CODING ERROR, REPORT TO OMBRIX threads %d and %d\n", me, holder);
        }
    }

    for (const WaitRow& r : th_wait) {
        int lock = r.lock.load();
        if (lock <= 0) continue;
        mutex_emsg("Thread [%d] %s:%d waiting for mutex (%s) (%d sec)\n", r.thid.load(), r.file.load(),
                   r.line.load(), name_of(lock), static_cast<int>(now - r.time.load()));
    }

    mutex_fail_i = mi;
    if (auto fn = crash_hook.load()) fn();
    emsg_flush();
    std::abort();
}

// ---------------------------------------------------------------- state texts and status

int mutex_info_set(int x, const char* reason) {
    if (x < 0 || x >= kMutexSlots) return 0;
    std::lock_guard lk(notes().mx);
    notes().info[x] = reason != nullptr ? reason : "";
    notes().itime[x] = time(nullptr);
    return 1;
}

int mutex_save_info(int x, std::string& saved) {
    saved = mutex_info(x);
    return saved.empty() ? 0 : 1;
}

std::string mutex_info(int x) {
    if (x < 0 || x >= kMutexSlots) return "";
    std::lock_guard lk(notes().mx);
    return notes().info[x];
}

int mutex_set_timing(const char* name) {
    for (const NamedLock& n : m_names) {
        if (name != nullptr && strcasecmp(name, n.name) == 0) {
            mutex_timing = n.number;
            return 1;
        }
    }
    return 0;
}

int mutex_status(int i, std::string& name, int* tot, int* xcpu) {
    const char* n = i >= 0 && i < kMutexSlots ? mutex_name(i) : nullptr;
    if (n == nullptr) return 0;
    const Slot& s = mutexes[i];
    name = n;
    if (tot != nullptr) *tot = static_cast<int>(s.tot.load());
    if (xcpu != nullptr) *xcpu = s.thid.load() != -1 ? static_cast<int>(now_ms() - s.start.load()) : 0;
    return 1;
}

std::string mutex_status2(int i) {
    if (i < 0 || i >= kMutexSlots) return "";
    const Slot& s = mutexes[i];
    return strfmt("%d %s:%d %s:%d", s.count.load(), base_name(s.osource.load()), s.oline.load(),
                  base_name(s.source.load()), s.line.load());
}

std::string mutex_status3(int i) {
    if (i < 0 || i >= kMutexSlots) return "";
    const Slot& s = mutexes[i];
    int holder = s.thid.load();
    int secs = holder != -1 ? static_cast<int>(time(nullptr) - s.time.load()) : 0;
    return strfmt("%d %d %s", holder, secs, mutex_info(i).c_str());
}

std::string mutex_showdelay() {
    std::lock_guard lk(notes().mx);
    return notes().delay_wait;
}

std::string mutex_showdelay2() {
    std::lock_guard lk(notes().mx);
    return notes().delay_hold;
}

int mutex_msg_dump(const char* dir) {
    std::string where = dir != nullptr ? dir : "";
    if (where.empty()) {
        std::string log = emsg_fname();
        size_t slash = log.rfind('/');
        where = slash != std::string::npos ? log.substr(0, slash) : ".";
    }
    FILE* dump = std::fopen((where + "/msg.dump").c_str(), "w");
    if (dump == nullptr) return 0;
    for (int l = 0; l < kFreqSlots; l++) {
        long long v = msg_line[l].load();
        if (v > 0) std::fprintf(dump, "%8d line %d\n", static_cast<int>(v), l);
    }
    std::fclose(dump);
    FILE* freq = std::fopen((where + "/mutex.freq").c_str(), "w");
    if (freq == nullptr) return 0;
    for (int l = 0; l < kFreqSlots; l++) {
        int v = mutex_freq[l].load();
        const char* f = mutex_freq_file[l].load();
        if (v > 0) std::fprintf(freq, "%8d line %d File %s\n", v, l, f != nullptr ? f : "");
    }
    std::fclose(freq);
    return 1;
}

// ---------------------------------------------------------------- MutexHold

MutexHold::MutexHold(int i, const char* file, int line) : i_(i), file_(file), line_(line), held_(true) {
    mutex_wait_debug(i_, file_, line_);
}

MutexHold::~MutexHold() { release(); }

void MutexHold::release() {
    if (!held_) return;
    held_ = false;
    mutex_release_debug(i_, file_, line_);
}

}  // namespace korv
