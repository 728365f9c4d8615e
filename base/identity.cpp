// Per-thread credentials through the raw system calls.
#include "base/identity.h"

#include <grp.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>
#include <string>
#include <vector>

namespace korv {
namespace {

// 32-bit systems keep the 16-bit calls under the plain names.
#ifdef SYS_setresuid32
constexpr long kSetresuid = SYS_setresuid32;
constexpr long kSetresgid = SYS_setresgid32;
constexpr long kSetgroups = SYS_setgroups32;
#else
constexpr long kSetresuid = SYS_setresuid;
constexpr long kSetresgid = SYS_setresgid;
constexpr long kSetgroups = SYS_setgroups;
#endif

constexpr time_t kGroupsTtl = 60;  // a change to the group database shows within a minute
constexpr int kGroupsStart = 32;

// getgrouplist with a list that grows until it fits.
bool read_grouplist(const char* user, gid_t gid, std::vector<gid_t>& out) {
    int n = kGroupsStart;
    for (int tries = 0; tries < 8; tries++) {
        out.resize(static_cast<size_t>(n));
        int want = n;
        if (getgrouplist(user, gid, out.data(), &want) >= 0) {
            out.resize(static_cast<size_t>(want));
            return true;
        }
        if (want <= n) break;  // no growth asked for: a lookup error
        n = want;
    }
    return false;
}

struct GroupsCache {
    std::string user;
    gid_t gid = 0;
    time_t at = 0;
    std::vector<gid_t> list;

    bool fresh(const char* u, gid_t g, time_t now) const {
        return user == u && gid == g && now >= at && now - at <= kGroupsTtl;
    }
};

// Two lists per thread: a session switches between its user and root, and
// each switch would otherwise read the group database again.
struct ThreadGroups {
    GroupsCache slot[2];
    int older = 0;

    const std::vector<gid_t>* find(const char* user, gid_t gid) {
        const time_t now = time(nullptr);
        for (int i = 0; i < 2; i++) {
            if (slot[i].fresh(user, gid, now)) {
                older = 1 - i;
                return &slot[i].list;
            }
        }
        GroupsCache& c = slot[older];
        if (!read_grouplist(user, gid, c.list)) {
            c.user.clear();
            return nullptr;
        }
        c.user = user;
        c.gid = gid;
        c.at = now;
        older = 1 - older;
        return &c.list;
    }
};

}  // namespace

int thread_setegid(gid_t gid) {
    return static_cast<int>(syscall(kSetresgid, static_cast<gid_t>(-1), gid, static_cast<gid_t>(-1)));
}

int thread_seteuid(uid_t uid) {
    return static_cast<int>(syscall(kSetresuid, static_cast<uid_t>(-1), uid, static_cast<uid_t>(-1)));
}

int thread_initgroups(const char* user, gid_t gid) {
    thread_local ThreadGroups groups;
    const std::vector<gid_t>* list = groups.find(user, gid);
    if (list == nullptr) {
        errno = EINVAL;
        return -1;
    }
    return static_cast<int>(syscall(kSetgroups, list->size(), list->data()));
}

int thread_setgroups_one(gid_t gid) { return static_cast<int>(syscall(kSetgroups, 1, &gid)); }

}  // namespace korv
