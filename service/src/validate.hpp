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
// Valid UTF-8 without control characters (anything below 0x20, and DEL).
bool printable(const std::string &s);
// Why a text is not printable ("not valid UTF-8 at byte 3"), or empty when it is.
std::string text_problem(const std::string &s);
// Length of the valid UTF-8 sequence starting at s[pos] (1 for ASCII), 0 when there is none.
size_t utf8_sequence(const std::string &s, size_t pos);

} // namespace callhome::validate
