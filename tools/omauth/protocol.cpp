// omauth's request handling: check, lookup, set, del, search and exit, each reply naming the
// user in second place as the server insists.
#include "tools/omauth/protocol.h"

#include <sys/stat.h>

#include <utility>
#include <vector>

#include "base/fmt.h"
#include "base/wild.h"

namespace korv::omauth {

namespace {

// Splits off the first blank-separated word; `rest` keeps what follows its one blank.
std::string_view word(std::string_view& rest) {
    size_t b = rest.find(' ');
    std::string_view w = rest.substr(0, b);
    rest = b == std::string_view::npos ? std::string_view() : rest.substr(b + 1);
    return w;
}

std::string shown(std::string_view user) { return valid_name(user) ? std::string(user) : std::string("-"); }

std::string file_stamp(const std::string& path) {
    struct stat st;
    if (::stat(path.c_str(), &st) != 0) return "none";
    return strfmt("%llu %lld %lld.%09ld", static_cast<unsigned long long>(st.st_ino), static_cast<long long>(st.st_size),
                  static_cast<long long>(st.st_mtim.tv_sec), st.st_mtim.tv_nsec);
}

}  // namespace

Module::Module(std::string path, std::function<void(std::string_view)> say,
               std::function<void(std::string_view)> note)
    : path_(std::move(path)), say_(std::move(say)), note_(std::move(note)) {}

bool Module::fresh(std::string& err) {
    std::string stamp = file_stamp(path_);
    if (loaded_ && stamp == stamp_) return true;
    loaded_ = false;
    if (!load_users(path_, uf_, err)) return false;
    loaded_ = true;
    stamp_ = stamp;
    return true;
}

void Module::unavailable(std::string_view user, const std::string& err) {
    note_(err);
    say_(strfmt("-ERR %s authentication unavailable", shown(user).c_str()));
}

bool Module::handle(std::string_view line) {
    if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
    std::string_view rest = line;
    std::string_view verb = word(rest);
    if (verb == "exit") return false;
    if (verb.empty()) return true;
    if (verb == "check") {
        std::string_view user = word(rest);
        check(user, rest);  // the password is the rest of the line: it may hold blanks
    } else if (verb == "lookup") {
        lookup(rest);
    } else if (verb == "set") {
        std::string_view user = word(rest);
        std::string_view pass = word(rest);
        set(user, pass, rest);
    } else if (verb == "del") {
        del(rest);
    } else if (verb == "search") {
        search(rest);
    } else {
        say_(strfmt("-ERR %s unknown command", shown(verb).c_str()));
    }
    return true;
}

void Module::check(std::string_view user, std::string_view pass) {
    std::string err;
    if (!fresh(err)) return unavailable(user, err);
    const OmUser* u = valid_name(user) ? uf_.find(user) : nullptr;
    bool ok = !pass.empty() && pass.size() <= kPassMax && check_password(pass, u ? u->hash : std::string());
    if (!u || !ok) return say_(strfmt("-ERR %s bad login", shown(user).c_str()));
    say_(strfmt("+OK %s ok", u->name.c_str()) + format_reply_fields(*u));
}

void Module::lookup(std::string_view user) {
    std::string err;
    if (!fresh(err)) return unavailable(user, err);
    const OmUser* u = valid_name(user) ? uf_.find(user) : nullptr;
    if (!u) return say_(strfmt("-ERR %s unknown user", shown(user).c_str()));
    say_(strfmt("+OK %s found", u->name.c_str()) + format_reply_fields(*u));
}

// `pass` "-" keeps the password; `info` holds fields to change, and a field with an empty value
// is dropped.
void Module::set(std::string_view user, std::string_view pass, std::string_view info) {
    const std::string name = shown(user);
    if (!valid_name(user)) return say_(strfmt("-ERR %s bad user name", name.c_str()));
    if (pass.empty() || pass.size() > kPassMax) return say_(strfmt("-ERR %s bad password", name.c_str()));
    std::vector<std::pair<std::string, std::string>> fields;
    std::string err;
    if (!parse_fields(info, fields, err)) return say_(strfmt("-ERR %s %s", name.c_str(), err.c_str()));
    for (auto& f : fields) {
        if (!is_user_field(f.first)) return say_(strfmt("-ERR %s unknown field %.40s", name.c_str(), f.first.c_str()));
        if (!f.second.empty() && !valid_field_value(f.first, f.second))
            return say_(strfmt("-ERR %s bad value of %.40s", name.c_str(), f.first.c_str()));
    }
    UsersLock lock(path_);
    if (!lock.held()) return unavailable(user, "cannot lock " + path_ + ".lock");
    if (!fresh(err)) return unavailable(user, err);
    OmUser* u = uf_.find(user);
    if (!u) {
        uf_.users.push_back(OmUser{name, "", {}});
        u = &uf_.users.back();
    }
    if (pass != "-") {
        u->hash = hash_password(pass);
        if (u->hash.empty()) {
            loaded_ = false;
            return unavailable(user, "password hashing failed");
        }
    }
    for (auto& [k, v] : fields) {
        if (v.empty())
            u->fields.erase(k);
        else
            u->fields[k] = v;
    }
    loaded_ = false;  // read back from disk next time, whatever happens here
    if (!save_users(uf_, err)) return unavailable(user, err);
    say_(strfmt("+OK %s saved", name.c_str()));
}

void Module::del(std::string_view user) {
    const std::string name = shown(user);
    UsersLock lock(path_);
    std::string err;
    if (!lock.held()) return unavailable(user, "cannot lock " + path_ + ".lock");
    if (!fresh(err)) return unavailable(user, err);
    if (!valid_name(user) || !uf_.remove(user)) return say_(strfmt("-ERR %s unknown user", name.c_str()));
    loaded_ = false;
    if (!save_users(uf_, err)) return unavailable(user, err);
    say_(strfmt("+OK %s deleted", name.c_str()));
}

void Module::search(std::string_view wild) {
    std::string err;
    std::string w(wild.empty() ? "*" : wild);
    if (!fresh(err)) return unavailable(w, err);
    int n = 0;
    for (const OmUser& u : uf_.users) {
        if (!match_wild(w.c_str(), u.name.c_str())) continue;
        say_("+DATA " + u.name + format_reply_fields(u));
        ++n;
    }
    say_(strfmt("+OK %s %d found", shown(w).c_str(), n));
}

}  // namespace korv::omauth
