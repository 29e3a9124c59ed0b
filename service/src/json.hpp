// A small JSON writer for the admin commands' output: enough for objects, arrays, strings,
// integers and booleans, always well-formed when the calls nest properly.
#pragma once

#include <cstdint>
#include <string>
#include <type_traits>
#include <vector>

#include "validate.hpp"

namespace callhome::json {

class Writer {
  public:
    Writer &begin_object() { return open('{'); }
    Writer &end_object() { return close('}'); }
    Writer &begin_array() { return open('['); }
    Writer &end_array() { return close(']'); }
    Writer &key(const std::string &k) {
        separate();
        quote(k);
        out_ += ": ";
        after_key_ = true;
        return *this;
    }
    Writer &value(const std::string &s) {
        separate();
        quote(s);
        return *this;
    }
    Writer &value(const char *s) { return value(std::string(s)); }
    template <class T, std::enable_if_t<std::is_integral_v<T> && !std::is_same_v<T, bool>, int> = 0>
    Writer &value(T n) {
        separate();
        out_ += std::to_string(n);
        return *this;
    }
    Writer &value(bool b) {
        separate();
        out_ += b ? "true" : "false";
        return *this;
    }
    template <class T> Writer &field(const std::string &k, const T &v) { return key(k).value(v); }
    std::string str() const { return out_ + "\n"; }

  private:
    Writer &open(char c) {
        separate();
        out_ += c;
        first_.push_back(true);
        return *this;
    }
    Writer &close(char c) {
        const bool empty = first_.back();
        first_.pop_back();
        if (!empty) {
            newline();
        }
        out_ += c;
        return *this;
    }
    void separate() {
        if (after_key_) {
            after_key_ = false;
            return;
        }
        if (!first_.empty()) {
            if (!first_.back()) {
                out_ += ',';
            }
            first_.back() = false;
            newline();
        }
    }
    void newline() {
        out_ += '\n';
        out_.append(first_.size() * 2, ' ');
    }
    // Whatever the bytes: JSON text is UTF-8, so a byte that starts no valid sequence
    // becomes U+FFFD.
    void quote(const std::string &s) {
        static const char hex[] = "0123456789abcdef";
        out_ += '"';
        for (size_t i = 0; i < s.size(); ++i) {
            const char c = s[i];
            const auto u = static_cast<unsigned char>(c);
            if (u >= 0x80) {
                const size_t n = validate::utf8_sequence(s, i);
                if (n == 0) {
                    out_ += "\\ufffd";
                } else {
                    out_.append(s, i, n);
                    i += n - 1;
                }
                continue;
            }
            switch (c) {
            case '"':
                out_ += "\\\"";
                break;
            case '\\':
                out_ += "\\\\";
                break;
            case '\n':
                out_ += "\\n";
                break;
            case '\r':
                out_ += "\\r";
                break;
            case '\t':
                out_ += "\\t";
                break;
            default:
                if (u < 0x20 || u == 0x7F) {
                    out_ += "\\u00";
                    out_ += hex[u >> 4];
                    out_ += hex[u & 0xF];
                } else {
                    out_ += c;
                }
            }
        }
        out_ += '"';
    }

    std::string out_;
    std::vector<bool> first_;
    bool after_key_ = false;
};

} // namespace callhome::json
