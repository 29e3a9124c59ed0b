// Checks of the values the service is given.
#pragma once

#include <string>

namespace callhome::validate {

// A host name: dot-separated labels of letters, digits and inner hyphens, 1 to 63 characters
// each, 253 characters at most (one trailing dot allowed).
bool host_name(const std::string &s);
// local@domain: a local part of printable characters without spaces or specials, and a
// domain that is a host name.
bool email(const std::string &s);
bool ipv4(const std::string &s);
bool ipv6(const std::string &s);
// No control characters (anything below 0x20, and DEL).
bool printable(const std::string &s);

} // namespace callhome::validate
