// omauth's users file: parsing and formatting of user lines, the whole-file load, the atomic
// rewrite, the writers' lock, and crypt(3) hashing.
#include "tools/omauth/userfile.h"

#include <crypt.h>
#include <fcntl.h>
#include <openssl/crypto.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <memory>

#include "base/fmt.h"

namespace korv::omauth {

const char* const kUserFields[] = {"groups",    "ftphome",   "ftpquota", "dailyquota", "accountstatus",
                                   "ftpfromip", "ftpuid",    "ftpgid",   nullptr};

namespace {

std::string errtext(int e) {
    char bf[200];
    return strerror_r(e, bf, sizeof bf);
}

bool write_all(int fd, std::string_view s) {
    while (!s.empty()) {
        ssize_t n = ::write(fd, s.data(), s.size());
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        s.remove_prefix(static_cast<size_t>(n));
    }
    return true;
}

struct FdCloser {
    int fd;
    ~FdCloser() {
        if (fd >= 0) ::close(fd);
    }
};

std::string folder_of(const std::string& path) {
    size_t s = path.rfind('/');
    if (s == std::string::npos) return ".";
    return s == 0 ? "/" : path.substr(0, s);
}

}  // namespace

bool valid_field_value(std::string_view name, std::string_view value) {
    if (name != "ftpuid" && name != "ftpgid") return true;
    // A system id: decimal, below the kernel's "no id" (uid_t)-1.
    if (value.empty() || value.size() > 10 || value.find_first_not_of("0123456789") != std::string_view::npos)
        return false;
    return std::stoull(std::string(value)) < 4294967295ULL;
}

bool is_user_field(std::string_view name) {
    for (const char* const* f = kUserFields; *f; ++f)
        if (name == *f) return true;
    return false;
}

OmUser* UserFile::find(std::string_view name) {
    for (OmUser& u : users)
        if (u.name == name) return &u;
    return nullptr;
}

bool UserFile::remove(std::string_view name) {
    for (auto it = users.begin(); it != users.end(); ++it) {
        if (it->name == name) {
            users.erase(it);
            return true;
        }
    }
    return false;
}

bool valid_name(std::string_view name) {
    if (name.empty() || name.size() > kNameMax) return false;
    for (unsigned char c : name)
        if (c <= ' ' || c == '"' || c == 0x7f) return false;
    return name[0] != '#';
}

bool valid_value(std::string_view value) {
    if (value.size() > kValueMax) return false;
    for (unsigned char c : value)
        if (c < ' ' || c == '"' || c == 0x7f) return false;
    return true;
}

bool parse_fields(std::string_view text, std::vector<std::pair<std::string, std::string>>& out, std::string& err) {
    size_t i = 0;
    auto skip = [&] {
        while (i < text.size() && (text[i] == ' ' || text[i] == '\t')) ++i;
    };
    for (skip(); i < text.size(); skip()) {
        size_t eq = text.find_first_of("= \t", i);
        if (eq == std::string_view::npos || text[eq] != '=' || eq == i || eq + 1 >= text.size() ||
            text[eq + 1] != '"') {
            err = strfmt("expected name=\"value\" at \"%.40s\"", std::string(text.substr(i)).c_str());
            return false;
        }
        std::string_view name = text.substr(i, eq - i);
        if (name.find('"') != std::string_view::npos) {
            err = strfmt("bad field name \"%.40s\"", std::string(name).c_str());
            return false;
        }
        size_t close = text.find('"', eq + 2);
        if (close == std::string_view::npos) {
            err = strfmt("unterminated value of %.40s", std::string(name).c_str());
            return false;
        }
        std::string_view value = text.substr(eq + 2, close - eq - 2);
        if (!valid_value(value)) {
            err = strfmt("bad value of %.40s", std::string(name).c_str());
            return false;
        }
        out.emplace_back(std::string(name), std::string(value));
        i = close + 1;
        if (i < text.size() && text[i] != ' ' && text[i] != '\t') {
            err = strfmt("no blank after the value of %.40s", std::string(name).c_str());
            return false;
        }
    }
    return true;
}

bool parse_user_line(std::string_view line, OmUser& u, std::string& err) {
    size_t b = line.find_first_of(" \t");
    u = OmUser{};
    u.name = std::string(line.substr(0, b));
    if (!valid_name(u.name)) {
        err = "bad user name";
        return false;
    }
    std::vector<std::pair<std::string, std::string>> fields;
    if (b != std::string_view::npos && !parse_fields(line.substr(b), fields, err)) return false;
    for (auto& [name, value] : fields) {
        if (name == "password") {
            u.hash = value;
        } else if (is_user_field(name)) {
            if (!value.empty() && !valid_field_value(name, value)) {
                err = strfmt("bad value of %.40s", name.c_str());
                return false;
            }
            u.fields[name] = value;
        } else {
            err = strfmt("unknown field %.40s", name.c_str());
            return false;
        }
    }
    return true;
}

std::string format_user_line(const OmUser& u) {
    std::string s = u.name;
    strfmt_append(s, " password=\"%s\"", u.hash.c_str());
    return s + format_reply_fields(u);
}

std::string format_reply_fields(const OmUser& u) {
    std::string s;
    for (const char* const* f = kUserFields; *f; ++f) {
        auto it = u.fields.find(*f);
        if (it != u.fields.end() && !it->second.empty()) strfmt_append(s, " %s=\"%s\"", *f, it->second.c_str());
    }
    return s;
}

bool load_users(const std::string& path, UserFile& uf, std::string& err) {
    uf.path = path;
    uf.users.clear();
    struct stat st;
    if (::stat(path.c_str(), &st) != 0 && errno == ENOENT) return true;  // a fresh install: no users yet
    std::ifstream in(path);
    if (!in || !S_ISREG(st.st_mode)) {
        err = strfmt("cannot read %s", path.c_str());
        return false;
    }
    std::string line;
    for (int n = 1; std::getline(in, line); ++n) {
        if (!line.empty() && line.back() == '\r') line.pop_back();
        size_t first = line.find_first_not_of(" \t");
        if (first == std::string::npos || line[first] == '#') continue;
        OmUser u;
        if (!parse_user_line(std::string_view(line).substr(first), u, err)) {
            err = strfmt("%s line %d: %s", path.c_str(), n, err.c_str());
            return false;
        }
        if (uf.find(u.name)) {
            err = strfmt("%s line %d: user %s twice", path.c_str(), n, u.name.c_str());
            return false;
        }
        uf.users.push_back(std::move(u));
    }
    return true;
}

bool save_users(const UserFile& uf, std::string& err) {
    std::string text = "# omauth users: name password=\"crypt hash\" groups=\"\" ftphome=\"\" ftpquota=\"\" "
                       "dailyquota=\"\" accountstatus=\"\" ftpfromip=\"\"\n";
    for (const OmUser& u : uf.users) text += format_user_line(u) + "\n";
    std::string tmp = strfmt("%s.tmp%d", uf.path.c_str(), static_cast<int>(::getpid()));
    FdCloser f{::open(tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600)};
    if (f.fd < 0) {
        err = strfmt("cannot create %s: %s", tmp.c_str(), errtext(errno).c_str());
        return false;
    }
    if (::fchmod(f.fd, 0600) != 0 || !write_all(f.fd, text) || ::fsync(f.fd) != 0) {
        err = strfmt("cannot write %s: %s", tmp.c_str(), errtext(errno).c_str());
        ::unlink(tmp.c_str());
        return false;
    }
    ::close(f.fd);
    f.fd = -1;
    if (::rename(tmp.c_str(), uf.path.c_str()) != 0) {
        err = strfmt("cannot rename %s: %s", tmp.c_str(), errtext(errno).c_str());
        ::unlink(tmp.c_str());
        return false;
    }
    // The rename itself must reach the disk too.
    FdCloser d{::open(folder_of(uf.path).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)};
    if (d.fd >= 0) ::fsync(d.fd);
    return true;
}

std::string hash_password(std::string_view pass) {
    char setting[CRYPT_GENSALT_OUTPUT_SIZE];
    if (!crypt_gensalt_rn(nullptr, 0, nullptr, 0, setting, sizeof setting)) return "";
    auto data = std::make_unique<crypt_data>();
    std::string p(pass);
    const char* h = crypt_rn(p.c_str(), setting, data.get(), sizeof *data);
    return h && h[0] != '*' ? std::string(h) : std::string();
}

bool check_password(std::string_view pass, const std::string& hash) {
    auto data = std::make_unique<crypt_data>();
    std::string p(pass);
    // An account without a hash still costs one hashing, so a reply's delay tells nothing.
    static const std::string kDummy = hash_password("omauth-no-such-user");
    const std::string& setting = hash.empty() ? kDummy : hash;
    const char* h = crypt_rn(p.c_str(), setting.c_str(), data.get(), sizeof *data);
    if (hash.empty() || !h || h[0] == '*') return false;
    size_t n = std::strlen(h);
    return n == hash.size() && CRYPTO_memcmp(h, hash.data(), n) == 0;
}

UsersLock::UsersLock(const std::string& path) {
    std::string name = path + ".lock";
    fd_ = ::open(name.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (fd_ < 0) return;
    int r;
    do {
        r = ::flock(fd_, LOCK_EX);
    } while (r != 0 && errno == EINTR);
    if (r != 0) {
        ::close(fd_);
        fd_ = -1;
    }
}

UsersLock::~UsersLock() {
    if (fd_ >= 0) ::close(fd_);
}

}  // namespace korv::omauth
