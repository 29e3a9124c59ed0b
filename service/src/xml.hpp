// XML text escaping for message bodies.
#pragma once

#include <string>

namespace callhome::xml {

// Escapes markup characters; control characters that XML 1.0 forbids and bytes that are not
// valid UTF-8 become '?', so that any command output or inventory field stays well-formed.
inline std::string escape(const std::string &s) {
    std::string out;
    out.reserve(s.size());
    for (size_t i = 0; i < s.size();) {
        const auto c = static_cast<unsigned char>(s[i]);
        if (c < 0x80) {
            switch (c) {
            case '<':
                out += "&lt;";
                break;
            case '>':
                out += "&gt;";
                break;
            case '&':
                out += "&amp;";
                break;
            case '"':
                out += "&quot;";
                break;
            case '\'':
                out += "&apos;";
                break;
            default:
                out +=
                    (c < 0x20 && c != '\t' && c != '\n' && c != '\r') || c == 0x7F ? '?' : char(c);
            }
            ++i;
            continue;
        }
        // Length of a well-formed UTF-8 sequence starting here, or 0.
        size_t n = c >= 0xC2 && c <= 0xDF   ? 2
                   : c >= 0xE0 && c <= 0xEF ? 3
                   : c >= 0xF0 && c <= 0xF4 ? 4
                                            : 0;
        if (n == 0 || i + n > s.size()) {
            n = 0;
        }
        for (size_t k = 1; k < n; ++k) {
            if ((static_cast<unsigned char>(s[i + k]) & 0xC0) != 0x80) {
                n = 0;
                break;
            }
        }
        if (n == 3 || n == 4) {
            const auto d = static_cast<unsigned char>(s[i + 1]);
            if ((c == 0xE0 && d < 0xA0) || (c == 0xED && d > 0x9F) || (c == 0xF0 && d < 0x90) ||
                (c == 0xF4 && d > 0x8F)) {
                n = 0; // overlong, surrogate or beyond U+10FFFF
            }
        }
        if (n == 0) {
            out += '?';
            ++i;
        } else {
            out.append(s, i, n);
            i += n;
        }
    }
    return out;
}

} // namespace callhome::xml
