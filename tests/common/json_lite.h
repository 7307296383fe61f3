// A small JSON reader for tests that hold a result against a generator's
// truth.json. Objects keep their keys in order; numbers are doubles.
#pragma once

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace zorv::testing {

struct Json {
    enum class Kind { Null, Bool, Number, String, Array, Object } kind = Kind::Null;
    bool b = false;
    double num = 0;
    std::string str;
    std::vector<Json> items;
    std::vector<std::pair<std::string, Json>> members;

    const Json& operator[](const std::string& key) const {
        for (const auto& [k, v] : members)
            if (k == key) return v;
        throw std::out_of_range("no key " + key);
    }
    const Json& operator[](size_t i) const { return items.at(i); }
    bool has(const std::string& key) const {
        for (const auto& m : members)
            if (m.first == key) return true;
        return false;
    }
    size_t size() const { return kind == Kind::Array ? items.size() : members.size(); }
    double number() const { return num; }
    long integer() const { return static_cast<long>(num); }
    // A string, or a number as text ("1" for 1): for keys either may hold.
    std::string text() const {
        if (kind == Kind::String) return str;
        if (kind == Kind::Number) {
            std::string s = std::to_string(num);
            s.erase(s.find_last_not_of('0') + 1);
            if (!s.empty() && s.back() == '.') s.pop_back();
            return s;
        }
        return {};
    }
};

class JsonParser {
public:
    explicit JsonParser(const std::string& s) : s_(s) {}
    Json parse() {
        Json v = value();
        ws();
        if (i_ != s_.size()) fail("trailing text");
        return v;
    }

private:
    [[noreturn]] void fail(const char* what) const {
        throw std::runtime_error(std::string("JSON: ") + what + " at " + std::to_string(i_));
    }
    void ws() {
        while (i_ < s_.size() && (s_[i_] == ' ' || s_[i_] == '\n' || s_[i_] == '\r' || s_[i_] == '\t')) ++i_;
    }
    bool eat(char c) {
        ws();
        if (i_ < s_.size() && s_[i_] == c) {
            ++i_;
            return true;
        }
        return false;
    }
    std::string string() {
        if (!eat('"')) fail("string expected");
        std::string out;
        while (i_ < s_.size() && s_[i_] != '"') {
            char c = s_[i_++];
            if (c != '\\') {
                out += c;
                continue;
            }
            if (i_ >= s_.size()) fail("bad escape");
            char e = s_[i_++];
            switch (e) {
                case 'n': out += '\n'; break;
                case 'r': out += '\r'; break;
                case 't': out += '\t'; break;
                case 'b': out += '\b'; break;
                case 'f': out += '\f'; break;
                case 'u': {
                    unsigned cp = static_cast<unsigned>(std::stoul(s_.substr(i_, 4), nullptr, 16));
                    i_ += 4;
                    if (cp < 0x80) {
                        out += static_cast<char>(cp);
                    } else if (cp < 0x800) {
                        out += static_cast<char>(0xC0 | (cp >> 6));
                        out += static_cast<char>(0x80 | (cp & 0x3F));
                    } else {
                        out += static_cast<char>(0xE0 | (cp >> 12));
                        out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
                        out += static_cast<char>(0x80 | (cp & 0x3F));
                    }
                    break;
                }
                default: out += e;
            }
        }
        if (i_ >= s_.size()) fail("unterminated string");
        ++i_;
        return out;
    }
    Json value() {
        ws();
        if (i_ >= s_.size()) fail("value expected");
        Json v;
        char c = s_[i_];
        if (c == '{') {
            ++i_;
            v.kind = Json::Kind::Object;
            if (eat('}')) return v;
            do {
                std::string k = string();
                if (!eat(':')) fail("':' expected");
                v.members.emplace_back(std::move(k), value());
            } while (eat(','));
            if (!eat('}')) fail("'}' expected");
        } else if (c == '[') {
            ++i_;
            v.kind = Json::Kind::Array;
            if (eat(']')) return v;
            do v.items.push_back(value());
            while (eat(','));
            if (!eat(']')) fail("']' expected");
        } else if (c == '"') {
            v.kind = Json::Kind::String;
            v.str = string();
        } else if (s_.compare(i_, 4, "true") == 0 || s_.compare(i_, 5, "false") == 0) {
            v.kind = Json::Kind::Bool;
            v.b = s_[i_] == 't';
            i_ += v.b ? 4 : 5;
        } else if (s_.compare(i_, 4, "null") == 0) {
            i_ += 4;
        } else {
            char* end = nullptr;
            v.kind = Json::Kind::Number;
            v.num = std::strtod(s_.c_str() + i_, &end);
            if (end == s_.c_str() + i_) fail("number expected");
            i_ = static_cast<size_t>(end - s_.c_str());
        }
        return v;
    }
    const std::string& s_;
    size_t i_ = 0;
};

inline Json ReadJsonFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::string s((std::istreambuf_iterator<char>(in)), {});
    return JsonParser(s).parse();
}

}  // namespace zorv::testing
