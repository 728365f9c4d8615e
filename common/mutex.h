// Numbered recursive locks with a wait table and deadlock detection: a thread
// that cannot get a lock within the limit (180 s) reports every lock and
// waiter to the log and takes the process down, so a hang becomes a restart.
#pragma once

#include <string>

namespace korv {

enum : int {
    MUTEX_CLASS = 1,
    MUTEX_MAIN = 2,
    MUTEX_LINK = 3,
    MUTEX_EMSG = 4,
    MUTEX_REPORT = 7,
    MUTEX_DNS = 9,
    MUTEX_RECENT = 10,
    MUTEX_WEB = 11,
    MUTEX_DAYS = 12,
    MUTEX_MIRROR = 13,
    MUTEX_PASSWORD = 14,
    MUTEX_SETEGID = 15,
    MUTEX_UNIX_THREAD_SAFE_DIRECTORY_SCANNING = 25,
    MUTEX_SSHA = 26,
    MUTEX_CREATE_THREAD_LIST = 27,
    MUTEX_MISC = 28,
    MUTEX_M_ANON_HAMMER = 29,
    MUTEX_LOOP = 30,
    MUTEX_CURRENT_CONNECTIONS = 32,
    MUTEX_PER_USERNAME_SETTINGS = 33,
    MUTEX_CHECK_LOOP = 36,
    MUTEX_PLOG = 72,
};

constexpr int kMutexSlots = 80;       // lock numbers 0..79
constexpr int kMutexWaitRows = 15001; // wait table rows, by thread id

void mutex_init();
void mutex_exit();
void mutex_set_timeout(int xseconds);  // the limit before a stuck wait crashes the process

// The normal take and release: recursive, counted, with the wait table.
void mutex_wait_debug(int i, const char* file, int line);
int mutex_wait_debug_timeout(int i, const char* file, int line, int tout);  // tout in s; 0 = not had
int mutex_wait_timeoutx(int i, int tout, const char* file, int line);        // tout in s, 0 = no limit
void mutex_release_debug(int i, const char* file, int line);

// The thin path used by the log itself: no counts, no wait table. tout in ms.
void mutex_wait_fast(int i, const char* file, int line);
int mutex_wait_fast_timeout(int i, int tout, const char* file, int line);
void mutex_release_fast(int i, const char* file, int line);

void mutex_assert_gotx(int i, const char* file, int line);
void mutex_assert_count_is_onex(int i, const char* file, int line);

int mutex_info_set(int x, const char* reason);
int mutex_save_info(int x, std::string& saved);  // copies the state text out; 1 if there was one
std::string mutex_info(int x);
int mutex_set_timing(const char* name);  // 1 if the name is a lock's, else 0 and no change

// Status for the admin pages.
int mutex_status(int i, std::string& name, int* tot, int* xcpu);  // 1 for a named lock
std::string mutex_status2(int i);  // "%d %s:%d %s:%d": depth, outer place, last place
std::string mutex_status3(int i);  // holder, seconds held, state text
const char* mutex_name(int i);     // null for an unnamed number
int mutex_holder(int i);           // thread id of the holder, -1 when free
int mutex_depth(int i);

int mutex_msg_dump(const char* dir = nullptr);  // msg.dump and mutex.freq, in dir or the log's
std::string mutex_showdelay();   // last slow wait note
std::string mutex_showdelay2();  // last long hold note

int mutex_waiting(int thid, int iswait, int m, const char* file, int line);
void mutex_crash(int mi, const char* file, int line);
int mutex_emsg(const char* format, ...) __attribute__((format(printf, 1, 2)));

// The layer above registers what a crash must also do: stop the authentication
// modules, and write the start-stop log. Without a start-stop hook those lines
// go to standard error.
void mutex_set_crash_hook(void (*fn)());
void mutex_set_startstop_hook(void (*fn)(const char* text));
// The main loop's state text, shown in the crash report as "main status".
void mutex_set_main_status_hook(const char* (*fn)());

// RAII hold of a numbered lock; records the caller's file and line.
class MutexHold {
public:
    explicit MutexHold(int i, const char* file = __builtin_FILE(), int line = __builtin_LINE());
    ~MutexHold();
    MutexHold(const MutexHold&) = delete;
    MutexHold& operator=(const MutexHold&) = delete;
    void release();  // early release; the destructor then does nothing

private:
    int i_;
    const char* file_;
    int line_;
    bool held_;
};

}  // namespace korv

#define mutex_wait(i) ::korv::mutex_wait_debug((i), __FILE__, __LINE__)
#define mutex_release(i) ::korv::mutex_release_debug((i), __FILE__, __LINE__)
#define mutex_assert_got(i) ::korv::mutex_assert_gotx((i), __FILE__, __LINE__)
#define mutex_assert_count_is_one(i) ::korv::mutex_assert_count_is_onex((i), __FILE__, __LINE__)
