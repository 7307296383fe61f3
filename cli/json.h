// Minimal JSON writer for the --json output of the verbs.
#pragma once

#include <charconv>
#include <cmath>
#include <cstdio>
#include <string>
#include <string_view>
#include <vector>

#include "base/text.h"

namespace zorv::cli {

class Json {
public:
    Json& beginObject() { sep(); out_ += '{'; first_.push_back(true); return *this; }
    Json& endObject() { out_ += '}'; first_.pop_back(); return *this; }
    Json& beginArray() { sep(); out_ += '['; first_.push_back(true); return *this; }
    Json& endArray() { out_ += ']'; first_.pop_back(); return *this; }
    Json& key(std::string_view k) {
        sep();
        str(k);
        out_ += ':';
        pendingKey_ = true;
        return *this;
    }
    Json& value(std::string_view s) { sep(); str(s); return *this; }
    Json& value(const char* s) { return value(std::string_view(s)); }
    Json& value(const std::string& s) { return value(std::string_view(s)); }
    Json& value(double d) {
        sep();
        if (!std::isfinite(d)) {
            out_ += "null";
        } else {
            char buf[32];
            std::snprintf(buf, sizeof buf, "%.17g", d);
            out_ += buf;
        }
        return *this;
    }
    // Shortest text that reads back as the same single: "1.1", not "1.1000000238418579".
    Json& value(float f) {
        sep();
        if (!std::isfinite(f)) {
            out_ += "null";
        } else {
            char buf[32];
            out_.append(buf, std::to_chars(buf, buf + sizeof buf, f).ptr);
        }
        return *this;
    }
    Json& value(long long i) { sep(); out_ += std::to_string(i); return *this; }
    Json& value(int i) { return value(static_cast<long long>(i)); }
    Json& value(bool b) { sep(); out_ += b ? "true" : "false"; return *this; }
    Json& null() { sep(); out_ += "null"; return *this; }
    template <class T>
    Json& field(std::string_view k, const T& v) { key(k); return value(v); }
    const std::string& str() const { return out_; }

private:
    void sep() {
        if (pendingKey_) { pendingKey_ = false; return; }
        if (!first_.empty()) {
            if (!first_.back()) out_ += ',';
            first_.back() = false;
        }
    }
    void str(std::string_view s) { AppendJsonString(out_, s); }
    std::string out_;
    std::vector<bool> first_;
    bool pendingKey_ = false;
};

}  // namespace zorv::cli
