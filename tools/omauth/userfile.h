// omauth's users file: one user a line, `name password="crypt hash" field="value" ...`, read
// whole, and rewritten whole through a temporary file, fsync and rename so a crash never loses it.
#pragma once

#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace korv::omauth {

constexpr size_t kNameMax = 200;    // user names
constexpr size_t kValueMax = 999;   // one field's value
constexpr size_t kPassMax = 512;    // a clear-text password

// The fields a user may carry besides the password, as the server reads them from a reply.
extern const char* const kUserFields[];
bool is_user_field(std::string_view name);
// False for a value the field cannot hold: ftpuid and ftpgid are decimal system ids.
bool valid_field_value(std::string_view name, std::string_view value);

struct OmUser {
    std::string name;
    std::string hash;                           // crypt(3) hash; "" = no password, no login
    std::map<std::string, std::string> fields;  // groups, ftphome, ftpquota, ftpuid, ...
};

struct UserFile {
    std::string path;
    std::vector<OmUser> users;  // in file order

    OmUser* find(std::string_view name);
    bool remove(std::string_view name);
};

// A name the file and the protocol can carry: 1..kNameMax bytes, printable, no blank, no '"'.
bool valid_name(std::string_view name);
// A value: at most kValueMax bytes, no '"', no control characters.
bool valid_value(std::string_view value);

// Parses `name="value" ...` (blanks between; values in double quotes). False on bad syntax.
bool parse_fields(std::string_view text, std::vector<std::pair<std::string, std::string>>& out, std::string& err);
// One line of the file into a user. False with a reason on bad syntax or an unknown field.
bool parse_user_line(std::string_view line, OmUser& u, std::string& err);
std::string format_user_line(const OmUser& u);
// The fields of a reply: ` name="value"` for each non-empty field, in the order of kUserFields.
std::string format_reply_fields(const OmUser& u);

// A missing file loads as empty. False with a reason (and its line number) on a bad file.
bool load_users(const std::string& path, UserFile& uf, std::string& err);
// Writes the file whole, mode 0600: temporary file beside it, fsync, rename, fsync of the folder.
bool save_users(const UserFile& uf, std::string& err);

// Password hashing with the system's best method, and checking.
std::string hash_password(std::string_view pass);
bool check_password(std::string_view pass, const std::string& hash);

}  // namespace korv::omauth

namespace korv::omauth {

// Holds an exclusive lock on `path`.lock (mode 0600) while alive: one writer at a time, whether
// the module or a command run from a terminal.
class UsersLock {
public:
    explicit UsersLock(const std::string& path);
    ~UsersLock();
    UsersLock(const UsersLock&) = delete;
    UsersLock& operator=(const UsersLock&) = delete;
    bool held() const { return fd_ >= 0; }

private:
    int fd_ = -1;
};

}  // namespace korv::omauth
