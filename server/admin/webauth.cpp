// The admin password: Basic authentication against admin.dat in the server's
// home, the process-wide back-off against guessing, and writing admin.dat.
#include "server/admin/webauth.h"

#include <crypt.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <memory>

#include "base/fmt.h"
#include "common/emsg.h"
#include "common/mutex.h"
#include "net/digest.h"
#include "server/admin/webio.h"
#include "server/process/control.h"

namespace korv {

namespace {

constexpr int kLastGuessMax = 999;
constexpr int kGuessIpMax = 999;
constexpr int kGuessesInfo = 11;   // from here each new guess is noted at info level
constexpr int kGuessesDebug = 4;   // above this at debug level
constexpr int kSshaPrefix = 6;     // "{SSHA}"
constexpr int kSha1Len = 20;
constexpr int kAdminNameMax = 200;
constexpr long kForgetAfterSecs = 86400;

// The guess state of the whole process, under MUTEX_WEB.
struct GuessState {
    time_t previous_bad_login = 0;
    int bad_login_counter = 0;
    int bad_login_wait_secs = 0;
    int nguesses = 0;
    std::string last_guess;
    std::string guess_ip;
};
GuessState guesses;
time_t (*clock_fn)() = nullptr;

time_t now() { return clock_fn != nullptr ? clock_fn() : time(nullptr); }

int my_pow(int base, int exp) {
    int r = 1;
    for (int i = 0; i < exp; ++i) {
        if (r > INT_MAX / base) return INT_MAX;
        r *= base;
    }
    return r;
}

bool allowed_locked(time_t t) {
    return !(guesses.bad_login_counter > 2 && t - guesses.previous_bad_login <= guesses.bad_login_wait_secs);
}

struct FileClose {
    void operator()(FILE* f) const { std::fclose(f); }
};

std::string errtext(int e) { return std::strerror(e); }

// A name or password admin.dat can hold on its one line and the login can
// present again.
bool storable(std::string_view s, bool is_user) {
    if (s.empty() || s.size() > static_cast<size_t>(is_user ? kAdminNameMax : kWebAuthPartMax)) return false;
    for (char c : s) {
        auto u = static_cast<unsigned char>(c);
        if (u < 0x20 || u == 0x7f || (is_user && c == ':')) return false;
    }
    return true;
}

}  // namespace

std::string admin_dat_path() {
    const char* home = korv_home();
    return home != nullptr && *home ? strfmt("%s/admin.dat", home) : std::string("admin.dat");
}

void web_guess_set_clock(time_t (*fn)()) {
    MutexHold hold(MUTEX_WEB);
    clock_fn = fn;
}

void web_auth(WINK* l, const char* line) {
    if (int n = web_nguesses(); n > kWebGuessLock) {
        emsg(" web_auth too many guesses at password (%d)\n", n);
        return;
    }
    const char* basic = std::strstr(line, "Basic");
    if (basic == nullptr) {
        // The scheme word only: what follows it may be a credential.
        std::string_view rest(line);
        rest.remove_prefix(std::min<size_t>(rest.size(), 14));
        while (!rest.empty() && rest.front() == ' ') rest.remove_prefix(1);
        rest = rest.substr(0, std::min(rest.find(' '), static_cast<size_t>(20)));
        emsg(" web_auth no basic method (%s)\n", log_escape(rest).c_str());
        return;
    }
    std::string_view tail(basic);
    if (tail.size() > static_cast<size_t>(kWebAuthTailMax)) {
        emsg(" web_auth line too long (%s)\n", strfmt("%d bytes", static_cast<int>(tail.size())).c_str());
        return;
    }
    std::string_view coded = tail.size() > 6 ? tail.substr(6) : std::string_view();
    while (!coded.empty() && (coded.back() == ' ' || coded.back() == '\r' || coded.back() == '\t')) coded.remove_suffix(1);
    std::string plain;
    if (base64_decode(coded, plain, kWebAuthDecodeMax) < 0) return;
    plain.resize(std::strlen(plain.c_str()));
    size_t colon = plain.find(':');
    std::string user = plain.substr(0, std::min(colon, static_cast<size_t>(kWebAuthPartMax)));
    std::string pass = colon == std::string::npos ? "" : plain.substr(colon + 1, kWebAuthPartMax);
    l->auth_user = user;
    if (web_check_pass(l, user.c_str(), pass.c_str())) {
        l->gotwebauth = 1;
        return;
    }
    {
        MutexHold hold(MUTEX_WEB);
        guesses.guess_ip = l->client_ip.substr(0, kGuessIpMax);
    }
    bad_login();
}

int web_check_pass(WINK* l, const char* user, const char* pass) {
    {
        MutexHold hold(MUTEX_WEB);
        if (guesses.last_guess != pass) {
            if (guesses.nguesses >= kGuessesInfo)
                imsg("Guesses %d\n", guesses.nguesses);
            else if (guesses.nguesses > kGuessesDebug)
                dmsg("Guesses %d\n", guesses.nguesses);
            ++guesses.nguesses;
        }
        guesses.last_guess.assign(pass, strnlen(pass, kLastGuessMax));
    }
    std::string path = admin_dat_path();
    std::unique_ptr<FILE, FileClose> f(std::fopen(path.c_str(), "r"));
    if (!f) {
        emsg("Could not read admin.dat %.200s, use korvane -password to recreate\n", errtext(errno).c_str());
        return 0;
    }
    char bf[kAdminDatLineMax];
    if (std::fgets(bf, sizeof bf, f.get()) == nullptr) return 0;
    f.reset();
    char* colon = std::strchr(bf, ':');
    if (colon == nullptr) return 0;
    *colon = 0;
    char* hash = colon + 1;
    hash[std::strcspn(hash, ":\r\n")] = 0;
    if (*hash == 0) return 0;
    const char* who = l != nullptr ? l->client_ip.c_str() : "";
    if (std::strcmp(user, bf) != 0) {
        imsg("Wrong admin user (%.100s) (%.100s)\n", log_escape(user).c_str(), who);
        return 0;
    }
    auto data = std::make_unique<crypt_data>();
    const char* crypted = crypt_rn(pass, hash, data.get(), sizeof *data);
    if (crypted != nullptr && crypted[0] != '*' && secret_equal(crypted, hash)) {
        MutexHold hold(MUTEX_WEB);
        guesses.nguesses = 0;
        return 1;
    }
    if (std::strlen(hash) > static_cast<size_t>(kSshaPrefix)) {
        std::string_view old(hash + kSshaPrefix);
        std::string made;
        {
            MutexHold hold(MUTEX_SSHA);
            made = raw_create_ssha(pass, old);
        }
        if (secret_equal(made, old)) return 1;
    }
    imsg("Wrong admin password (%.100s) (%.100s)\n", log_escape(user).c_str(), who);
    return 0;
}

std::string raw_create_ssha(std::string_view pass, std::string_view old) {
    std::string decoded, salt;
    if (base64_decode(old, decoded, 4096) > kSha1Len) salt = decoded.substr(kSha1Len);
    std::string input(pass);
    input += salt;
    return base64_encode(sha1_raw(input) + salt);
}

int allow_login_attempt_to_take_place() {
    MutexHold hold(MUTEX_WEB);
    return allowed_locked(now()) ? 1 : 0;
}

int secs_before_loging_in_again() {
    MutexHold hold(MUTEX_WEB);
    long left = static_cast<long>(guesses.bad_login_wait_secs) + guesses.previous_bad_login - now();
    return left > 0 ? static_cast<int>(std::min<long>(left, INT_MAX)) : 0;
}

void bad_login() {
    MutexHold hold(MUTEX_WEB);
    time_t t = now();
    if (!allowed_locked(t)) return;
    int& counter = guesses.bad_login_counter;
    if (counter > 1 && counter < 20 && t - guesses.previous_bad_login > kForgetAfterSecs) --counter;
    guesses.bad_login_wait_secs = counter < 21 ? counter * 2 : my_pow(2, counter - 15);
    if (counter < INT_MAX) ++counter;
    guesses.previous_bad_login = t;
}

int web_nguesses() {
    MutexHold hold(MUTEX_WEB);
    return guesses.nguesses;
}

std::string web_guess_ip() {
    MutexHold hold(MUTEX_WEB);
    return guesses.guess_ip;
}

void web_guess_reset() {
    MutexHold hold(MUTEX_WEB);
    guesses = GuessState{};
}

int admin_dat_write(const char* dir, const char* user, const char* password, std::string& reason) {
    if (!storable(user, true)) {
        reason = strfmt("the user name must hold 1 to %d characters, no ':' and no control characters", kAdminNameMax);
        return 0;
    }
    if (!storable(password, false)) {
        reason = strfmt("the password must hold 1 to %d characters and no control characters", kWebAuthPartMax);
        return 0;
    }
    char setting[CRYPT_GENSALT_OUTPUT_SIZE];
    // No random bytes given: the library takes them from the system.
    if (crypt_gensalt_rn("$6$", 0, nullptr, 0, setting, sizeof setting) == nullptr) {
        reason = "cannot make a salt: " + errtext(errno);
        return 0;
    }
    auto data = std::make_unique<crypt_data>();
    const char* hash = crypt_rn(password, setting, data.get(), sizeof *data);
    if (hash == nullptr || hash[0] == '*') {
        reason = "password hashing failed";
        return 0;
    }
    std::string line = strfmt("%s:%s\n", user, hash);
    std::string final_path = strfmt("%s/admin.dat", dir);
    // A new file renamed over the old one: it is 0600 from its first byte,
    // whatever the old file's mode, and a reader sees the old or the new line.
    std::string tmp = strfmt("%s/.admin.dat.XXXXXX", dir);
    int fd = mkstemp(tmp.data());
    if (fd < 0) {
        reason = strfmt("cannot create a file in %s: %s", dir, errtext(errno).c_str());
        return 0;
    }
    bool ok = fchmod(fd, 0600) == 0;
    size_t done = 0;
    while (ok && done < line.size()) {
        ssize_t n = write(fd, line.data() + done, line.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) ok = false;
        else done += static_cast<size_t>(n);
    }
    if (ok && fsync(fd) != 0) ok = false;
    int err = errno;
    if (close(fd) != 0 && ok) ok = false, err = errno;
    if (ok && rename(tmp.c_str(), final_path.c_str()) != 0) ok = false, err = errno;
    if (!ok) {
        unlink(tmp.c_str());
        reason = strfmt("cannot write %s: %s", final_path.c_str(), errtext(err).c_str());
        return 0;
    }
    return 1;
}

}  // namespace korv
