// login - user and password for a broker, out of a file that is no others' to read.
//
// Ownership  Values.
// Threads    Any.
// Blocking   A small file is read.
// Failures   A file that cannot be read, is readable for everybody, or has no user: tap::failure, usage.
#pragma once

#include <string>

namespace mqtt {

struct login {
    std::string user;
    std::string password;
};

// The user stands in the first line, the password in the second.
login read_login(const std::string& file);

// Refuses a secret that everybody on this host may read or change.
void require_private(const std::string& file);

} // namespace mqtt
