#include "numerics/equation.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <numbers>

#include "base/format.h"
#include "base/marks.h"
#include "base/proc.h"
#include "base/text.h"
#include "numerics/tickformat.h"
#include "tell.h"


namespace zorv {

namespace {

constexpr const char* kTag = "clsEqn(Solve):";

enum Fn : uint8_t {
    F_ABS, F_ARCCOS, F_ARCCOSEC, F_ARCCOSECH, F_ARCCOSH, F_ARCCOTAN, F_ARCCOTANH, F_ARCSEC,
    F_ARCSECH, F_ARCSIN, F_ARCSINH, F_ARCTAN, F_ARCTANH, F_COS, F_COSEC, F_COSECH, F_COSH,
    F_COTAN, F_COTANH, F_DEG, F_EXP, F_FIX, F_INT, F_LN, F_LOG10, F_LOG2, F_LOGN, F_MAX, F_MIN,
    F_MOD, F_RAD, F_RAND, F_RANDOM, F_RND, F_SEC, F_SECH, F_SGN, F_SIN, F_SINH, F_SQR, F_TAN,
    F_TANH,
};

struct FnDef {
    const char* name;
    Fn id;
    int minArgs, maxArgs;
};

// Function names as written before the opening parenthesis. "log" is the
// common (base 10) logarithm, "ln" the natural one; "logn(x, b)" is base b;
// "mod(a, b)" the remainder of a / b; "max" and "min" take any number of
// arguments; "rnd(x)" and "rand(x)" are uniform on [0, x), "random(a, b)"
// on [a, b) ("random(x)" on [0, x)).
constexpr FnDef kFns[] = {
    {"abs", F_ABS, 1, 1},         {"arccos", F_ARCCOS, 1, 1},     {"arccosec", F_ARCCOSEC, 1, 1},
    {"arccosech", F_ARCCOSECH, 1, 1}, {"arccosh", F_ARCCOSH, 1, 1}, {"arccotan", F_ARCCOTAN, 1, 1},
    {"arccotanh", F_ARCCOTANH, 1, 1}, {"arcsec", F_ARCSEC, 1, 1},  {"arcsech", F_ARCSECH, 1, 1},
    {"arcsin", F_ARCSIN, 1, 1},   {"arcsinh", F_ARCSINH, 1, 1},   {"arctan", F_ARCTAN, 1, 1},
    {"arctanh", F_ARCTANH, 1, 1}, {"atan", F_ARCTAN, 1, 1},       {"atn", F_ARCTAN, 1, 1},
    {"cos", F_COS, 1, 1},         {"cosec", F_COSEC, 1, 1},       {"cosech", F_COSECH, 1, 1},
    {"cosh", F_COSH, 1, 1},       {"cotan", F_COTAN, 1, 1},       {"cotanh", F_COTANH, 1, 1},
    {"deg", F_DEG, 1, 1},         {"exp", F_EXP, 1, 1},           {"fix", F_FIX, 1, 1},
    {"int", F_INT, 1, 1},         {"ln", F_LN, 1, 1},             {"log", F_LOG10, 1, 1},
    {"log10", F_LOG10, 1, 1},     {"log2", F_LOG2, 1, 1},         {"logn", F_LOGN, 2, 2},
    {"max", F_MAX, 1, 255},       {"min", F_MIN, 1, 255},         {"mod", F_MOD, 2, 2},
    {"rad", F_RAD, 1, 1},         {"rand", F_RAND, 1, 1},         {"random", F_RANDOM, 1, 2},
    {"rnd", F_RND, 1, 1},         {"sec", F_SEC, 1, 1},           {"sech", F_SECH, 1, 1},
    {"sgn", F_SGN, 1, 1},         {"sin", F_SIN, 1, 1},           {"sinh", F_SINH, 1, 1},
    {"sqr", F_SQR, 1, 1},         {"tan", F_TAN, 1, 1},           {"tanh", F_TANH, 1, 1},
};

const FnDef* findFn(std::string_view name) {
    for (const auto& f : kFns)
        if (name == f.name) return &f;
    return nullptr;
}

const char* fnName(uint8_t id) {
    for (const auto& f : kFns)
        if (f.id == id) return f.name;
    return "?";
}

// ASCII only: names are compared per site, and the locale's tolower is slow.
inline char lower(char c) { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c + ('a' - 'A')) : c; }
bool isDigit(char c) { return c >= '0' && c <= '9'; }
bool isNameStart(char c) { return std::isalpha(static_cast<unsigned char>(c)) || c == '_'; }
bool isNameChar(char c) { return std::isalnum(static_cast<unsigned char>(c)) || c == '_'; }

// ---- tokens --------------------------------------------------------------

enum class Tok { Num, Name, Func, Op, LParen, RParen, Comma, End };
struct Token {
    Tok kind;
    std::string text;  // name, function name or operator character
    double num = 0;
};

// Reads a number at s[i]: digits with one ".", then an exponent when an "e"
// is followed by a sign or a digit. False when the text is malformed.
bool scanNumber(std::string_view s, size_t& i, double& out) {
    const size_t b = i;
    bool dot = false;
    while (i < s.size() && (isDigit(s[i]) || s[i] == '.')) {
        if (s[i] == '.') {
            if (dot) return false;
            dot = true;
        }
        ++i;
    }
    if (i + 1 < s.size() && (s[i] == 'e' || s[i] == 'E') &&
        (isDigit(s[i + 1]) || s[i + 1] == '+' || s[i + 1] == '-')) {
        i += 2;
        const size_t digits = i;
        while (i < s.size() && isDigit(s[i])) ++i;
        if (i == digits && !isDigit(s[i - 1])) return false;
    }
    const std::string t(s.substr(b, i - b));
    if (t == ".") return false;
    char* end = nullptr;
    out = std::strtod(t.c_str(), &end);
    return end == t.c_str() + t.size();
}

enum class LexResult { Ok, Invalid, Unbalanced };

LexResult tokenize(std::string_view s, std::vector<Token>& out) {
    int depth = 0;
    bool unbalanced = false;
    size_t i = 0;
    while (i < s.size()) {
        const char c = s[i];
        if (c == ' ') {
            ++i;
        } else if (isDigit(c) || c == '.') {
            Token t{Tok::Num, {}, 0};
            if (!scanNumber(s, i, t.num)) return LexResult::Invalid;
            out.push_back(std::move(t));
        } else if (isNameStart(c)) {
            const size_t b = i;
            while (i < s.size() && isNameChar(s[i])) ++i;
            size_t j = i;
            while (j < s.size() && s[j] == ' ') ++j;
            std::string name(s.substr(b, i - b));
            for (char& ch : name) ch = lower(ch);
            if (j < s.size() && s[j] == '(') {
                out.push_back({Tok::Func, std::move(name), 0});
                i = j + 1;
                ++depth;
            } else {
                out.push_back({Tok::Name, std::move(name), 0});
            }
        } else if (c == '(') {
            out.push_back({Tok::LParen, "(", 0});
            ++depth;
            ++i;
        } else if (c == ')') {
            out.push_back({Tok::RParen, ")", 0});
            if (--depth < 0) unbalanced = true;
            ++i;
        } else if (c == ',') {
            out.push_back({Tok::Comma, ",", 0});
            ++i;
        } else if (c == '+' || c == '-' || c == '*' || c == '/' || c == '\\' || c == '^' || c == '%') {
            out.push_back({Tok::Op, std::string(1, c), 0});
            ++i;
        } else {
            return LexResult::Invalid;
        }
    }
    if (unbalanced || depth != 0) return LexResult::Unbalanced;
    out.push_back({Tok::End, {}, 0});
    return LexResult::Ok;
}

// ---- parser: recursive descent emitting postfix code ----------------------

struct ParseError {
    std::string text;
};

class Parser {
public:
    using Instr = clsEquation::Instr;
    using Op = clsEquation::Op;

    Parser(const std::vector<Token>& toks, const std::vector<std::string>& names,
           std::vector<Instr>& code)
        : t_(toks), names_(names), code_(code) {}

    void run(const std::string& text) {
        text_ = &text;
        expr();
        if (t_[p_].kind != Tok::End) invalid();
    }

private:
    [[noreturn]] void invalid() { throw ParseError{" Invalid Equation:" + *text_}; }
    const Token& peek() const { return t_[p_]; }
    bool isOp(char c) const { return peek().kind == Tok::Op && peek().text[0] == c; }
    void emit(Instr in) { code_.push_back(in); }
    void emitOp(Op op) { emit(Instr{op, 0, 0, 0, 0}); }

    void expr() {
        term();
        while (isOp('+') || isOp('-')) {
            const char c = peek().text[0];
            ++p_;
            term();
            emitOp(c == '+' ? Op::Add : Op::Sub);
        }
    }
    void term() {
        unary();
        while (isOp('*') || isOp('/') || isOp('\\') || isOp('%')) {
            const char c = peek().text[0];
            ++p_;
            unary();
            emitOp(c == '*' ? Op::Mul : c == '/' ? Op::Div : c == '\\' ? Op::IntDiv : Op::Mod);
        }
    }
    void unary() {
        if (isOp('-')) {
            ++p_;
            unary();
            negate();
        } else if (isOp('+')) {
            ++p_;
            unary();
        } else {
            power();
        }
    }
    void power() {
        primary();
        while (isOp('^')) {
            ++p_;
            exponent();
            // x^2 and other small whole constant powers become multiplications.
            Instr& last = code_.back();
            if (last.op == Op::Const && last.c == std::floor(last.c) && std::fabs(last.c) <= 64) {
                const int n = static_cast<int>(last.c);
                last = Instr{Op::PowInt, 0, 0, n, 0};
            } else {
                emitOp(Op::Pow);
            }
        }
    }
    void exponent() {
        if (isOp('-')) {
            ++p_;
            exponent();
            negate();
        } else if (isOp('+')) {
            ++p_;
            exponent();
        } else {
            primary();
        }
    }
    void negate() {
        // The last instruction is the root of the operand just parsed: when it
        // is a literal, the operand is that literal and the sign folds in.
        if (!code_.empty() && code_.back().op == Op::Const) {
            code_.back().c = -code_.back().c;
        } else {
            emitOp(Op::Neg);
        }
    }
    void primary() {
        const Token& tk = peek();
        switch (tk.kind) {
            case Tok::Num:
                ++p_;
                emit(Instr{Op::Const, 0, 0, 0, tk.num});
                return;
            case Tok::Name: {
                ++p_;
                const int slot = slotOf(tk.text);
                if (slot >= 0) {
                    emit(Instr{Op::Var, 0, 0, slot, 0});
                } else if (tk.text == "pi") {
                    emit(Instr{Op::Const, 0, 0, 0, kPi});
                    } else if (tk.text == "e") {
                    emit(Instr{Op::Const, 0, 0, 0, std::numbers::e});
                    } else if (tk.text == "rnd") {
                    emitOp(Op::Rnd);
                } else {
                    throw ParseError{"Undefined Variable: " + tk.text};
                }
                return;
            }
            case Tok::Func: {
                ++p_;
                const FnDef* f = findFn(tk.text);
                if (!f) throw ParseError{"Undefined Function: " + tk.text};
                int argc = 0;
                if (peek().kind != Tok::RParen) {
                    for (;;) {
                        expr();
                        ++argc;
                        if (peek().kind == Tok::Comma) {
                            ++p_;
                            continue;
                        }
                        break;
                    }
                }
                if (peek().kind != Tok::RParen) invalid();
                ++p_;
                if (argc < f->minArgs || argc > f->maxArgs)
                    throw ParseError{"Invalid arguments to function: " + tk.text};
                emit(Instr{Op::Func, static_cast<uint8_t>(f->id), static_cast<uint16_t>(argc), 0, 0});
                return;
            }
            case Tok::LParen:
                ++p_;
                expr();
                if (peek().kind != Tok::RParen) invalid();
                ++p_;
                return;
            default:
                invalid();
        }
    }
    int slotOf(const std::string& name) const {
        for (size_t i = 0; i < names_.size(); ++i)
            if (names_[i] == name) return static_cast<int>(i);
        return -1;
    }

    const std::vector<Token>& t_;
    const std::vector<std::string>& names_;
    std::vector<Instr>& code_;
    const std::string* text_ = nullptr;
    size_t p_ = 0;
};

int stackDepth(const std::vector<clsEquation::Instr>& code) {
    using Op = clsEquation::Op;
    int d = 0, mx = 0;
    for (const auto& in : code) {
        switch (in.op) {
            case Op::Const: case Op::Var: case Op::Rnd: ++d; break;
            case Op::Neg: case Op::PowInt: break;
            case Op::Func: d -= in.argc - 1; break;
            default: --d; break;
        }
        mx = std::max(mx, d);
    }
    return mx;
}

double powInt(double x, int n) {
    if (n == 2) return x * x;
    if (n == 1) return x;
    if (n == 0) return 1;
    bool inv = n < 0;
    unsigned k = static_cast<unsigned>(inv ? -n : n);
    double r = 1, b = x;
    while (k) {
        if (k & 1) r *= b;
        b *= b;
        k >>= 1;
    }
    return inv ? 1 / r : r;
}

// Rounds half to even, as the integer operators of the original language do.
double roundEven(double x) { return std::nearbyint(x); }

}  // namespace

// ---- clsEquation ---------------------------------------------------------

std::string NormaliseEquationLine(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    bool blank = false;
    for (char c : text) {
        if (c == ' ' || c == '\t' || c == '\r' || c == '\n') {
            blank = true;
            continue;
        }
        if (blank && !out.empty()) out.push_back(' ');
        blank = false;
        out.push_back(c);
    }
    return out;
}

void clsEquation::setEquation(std::string_view text) {
    std::string s = NormaliseEquationLine(text);
    ReplaceAll(s, "+-", "-");
    ReplaceAll(s, "+ -", "-");
    for (char& c : s) c = lower(c);
    text_ = std::move(s);
    needParse_ = true;
}

int clsEquation::find(std::string_view name) const {
    for (size_t i = 0; i < names_.size(); ++i) {
        const std::string& n = names_[i];
        if (n.size() != name.size()) continue;
        size_t k = 0;
        while (k < n.size() && n[k] == lower(name[k])) ++k;
        if (k == n.size()) return static_cast<int>(i);
    }
    return -1;
}

void clsEquation::Var(std::string_view name, double value) {
    const int i = find(name);
    if (i >= 0) {
        vals_[static_cast<size_t>(i)] = value;
        return;
    }
    std::string n(name);
    for (char& c : n) c = lower(c);
    names_.push_back(std::move(n));
    vals_.push_back(value);
    needParse_ = true;
}

double clsEquation::Var(std::string_view name) const {
    const int i = find(name);
    return i >= 0 ? vals_[static_cast<size_t>(i)] : 0.0;
}

int clsEquation::VarSlot(std::string_view name) {
    int i = find(name);
    if (i < 0) {
        Var(name, 0.0);
        i = static_cast<int>(names_.size()) - 1;
    }
    return i;
}

void clsEquation::VarRemove(std::string_view name) {
    const int i = find(name);
    if (i < 0) return;
    names_.erase(names_.begin() + i);
    vals_.erase(vals_.begin() + i);
    needParse_ = true;
}

void clsEquation::VarClear() {
    names_.clear();
    vals_.clear();
    needParse_ = true;
}

void clsEquation::Kill() {
    VarClear();
    code_.clear();
    stack_.clear();
    text_.clear();
    error_.clear();
    value_ = 0;
}

Datam clsEquation::GetmvarVarNames() const {
    std::vector<Token> toks;
    if (tokenize(text_, toks) == LexResult::Invalid) return Datam();
    std::vector<std::string> used;
    for (const auto& t : toks) {
        if (t.kind != Tok::Name) continue;
        const bool constant = (t.text == "pi" || t.text == "e" || t.text == "rnd") && find(t.text) < 0;
        if (constant) continue;
        if (std::find(used.begin(), used.end(), t.text) == used.end()) used.push_back(t.text);
    }
    if (used.empty()) return Datam();
    Datam d = Datam::vec(static_cast<int>(used.size()));
    for (size_t i = 0; i < used.size(); ++i) d(static_cast<int>(i) + 1, 1) = Value(used[i]);
    return d;
}

std::string clsEquation::Condense() const {
    std::string out;
    out.reserve(text_.size() + 16);
    const std::string_view s = text_;
    size_t i = 0;
    while (i < s.size()) {
        const char c = s[i];
        if (isDigit(c) || c == '.') {
            // Keep numbers whole so that an exponent's "e" is not taken for a name.
            size_t j = i;
            double dummy;
            if (!scanNumber(s, j, dummy)) j = i + 1;
            out.append(s.substr(i, j - i));
            i = j;
        } else if (isNameStart(c)) {
            size_t j = i;
            while (j < s.size() && isNameChar(s[j])) ++j;
            size_t k = j;
            while (k < s.size() && s[k] == ' ') ++k;
            const std::string_view name = s.substr(i, j - i);
            const int v = (k < s.size() && s[k] == '(') ? -1 : find(name);
            if (v >= 0) {
                const double x = vals_[static_cast<size_t>(v)];
                const std::string t = NumberToText(x);
                if (x < 0) out += "(" + t + ")";
                else out += t;
            } else {
                out.append(name);
            }
            i = j;
        } else {
            out.push_back(c);
            ++i;
        }
    }
    return out;
}

void clsEquation::fail(std::string text, bool runtime, float chk) {
    error_ = std::move(text);
    errorRuntime_ = runtime;
    errorChk_ = chk;
    value_ = 0;
}

void clsEquation::tell(Notes* notes) {
    if (told_ || !notes) return;
    told_ = true;
    Proc p(kTag);
    p.chk = errorChk_;
    if (errorRuntime_) p.error(error_);
    else p.msg = error_;
    TellFailure(notes, p.failure());
}

bool clsEquation::parse() {
    needParse_ = false;
    parseFailed_ = true;
    told_ = false;
    code_.clear();
    error_.clear();
    std::vector<Token> toks;
    switch (tokenize(text_, toks)) {
        case LexResult::Invalid: fail(" Invalid Equation:" + text_, false, 1); return false;
        case LexResult::Unbalanced: fail("Unbalanced parenthesis", false, 1); return false;
        case LexResult::Ok: break;
    }
    try {
        Parser(toks, names_, code_).run(text_);
    } catch (const ParseError& e) {
        code_.clear();
        fail(e.text, false, 2);
        return false;
    }
    stack_.assign(static_cast<size_t>(stackDepth(code_)) + 1, 0.0);
    parseFailed_ = false;
    return true;
}

bool clsEquation::Solve(Notes* notes) {
    bool ok;
    if (needParse_ && !parse()) {
        ok = false;
    } else if (parseFailed_) {
        value_ = 0;
        ok = false;
    } else {
        ok = evaluate();
    }
    if (!ok) tell(notes);
    return ok;
}

bool clsEquation::evaluate() {
    double* st = stack_.data();
    int sp = -1;
    const double* vals = vals_.data();
    for (const Instr& in : code_) {
        switch (in.op) {
            case Op::Const: st[++sp] = in.c; break;
            case Op::Var: st[++sp] = vals[in.idx]; break;
            case Op::Rnd: st[++sp] = std::uniform_real_distribution<double>(0.0, 1.0)(rng_); break;
            case Op::Neg: st[sp] = -st[sp]; break;
            case Op::Add: st[sp - 1] += st[sp]; --sp; break;
            case Op::Sub: st[sp - 1] -= st[sp]; --sp; break;
            case Op::Mul: st[sp - 1] *= st[sp]; --sp; break;
            case Op::Div:
                if (st[sp] == 0) {
                    fail("Division by zero", true, 3);
                    return false;
                }
                st[sp - 1] /= st[sp];
                --sp;
                break;
            case Op::IntDiv: {
                const double b = roundEven(st[sp]);
                if (b == 0) {
                    fail("Division by zero", true, 3);
                    return false;
                }
                st[sp - 1] = std::trunc(roundEven(st[sp - 1]) / b);
                --sp;
                break;
            }
            case Op::Mod:
                if (st[sp] == 0) {
                    fail("Division by zero", true, 3);
                    return false;
                }
                st[sp - 1] = std::fmod(st[sp - 1], st[sp]);
                --sp;
                break;
            case Op::PowInt: st[sp] = powInt(st[sp], in.idx); break;
            case Op::Pow: {
                const double r = std::pow(st[sp - 1], st[sp]);
                if (std::isnan(r) && !std::isnan(st[sp - 1]) && !std::isnan(st[sp])) {
                    fail("Invalid procedure call or argument", true, 3);
                    return false;
                }
                st[--sp] = r;
                break;
            }
            case Op::Func: {
                const int argc = in.argc;
                double* a = st + sp - argc + 1;
                const double x = a[0];
                const double toRad = degrees_ ? kPi / 180.0 : 1.0;
                const double fromRad = degrees_ ? 180.0 / kPi : 1.0;
                double r = 0;
                switch (in.fn) {
                    case F_ABS: r = std::fabs(x); break;
                    case F_ARCCOS: r = std::acos(x) * fromRad; break;
                    case F_ARCCOSEC: r = std::asin(1 / x) * fromRad; break;
                    case F_ARCCOSECH: r = std::asinh(1 / x); break;
                    case F_ARCCOSH: r = std::acosh(x); break;
                    case F_ARCCOTAN: r = (kPi / 2 - std::atan(x)) * fromRad; break;
                    case F_ARCCOTANH: r = std::atanh(1 / x); break;
                    case F_ARCSEC: r = std::acos(1 / x) * fromRad; break;
                    case F_ARCSECH: r = std::acosh(1 / x); break;
                    case F_ARCSIN: r = std::asin(x) * fromRad; break;
                    case F_ARCSINH: r = std::asinh(x); break;
                    case F_ARCTAN: r = std::atan(x) * fromRad; break;
                    case F_ARCTANH: r = std::atanh(x); break;
                    case F_COS: r = std::cos(x * toRad); break;
                    case F_COSEC: r = 1 / std::sin(x * toRad); break;
                    case F_COSECH: r = 1 / std::sinh(x); break;
                    case F_COSH: r = std::cosh(x); break;
                    case F_COTAN: r = 1 / std::tan(x * toRad); break;
                    case F_COTANH: r = 1 / std::tanh(x); break;
                    case F_DEG: r = x * 180.0 / kPi; break;
                    case F_EXP: r = std::exp(x); break;
                    case F_FIX: r = std::trunc(x); break;
                    case F_INT: r = std::floor(x); break;
                    case F_LN: r = x > 0 ? std::log(x) : NAN; break;
                    case F_LOG10: r = x > 0 ? std::log10(x) : NAN; break;
                    case F_LOG2: r = x > 0 ? std::log2(x) : NAN; break;
                    case F_LOGN: r = (x > 0 && a[1] > 0 && a[1] != 1) ? std::log(x) / std::log(a[1]) : NAN; break;
                    case F_MAX: r = x; for (int k = 1; k < argc; ++k) r = std::max(r, a[k]); break;
                    case F_MIN: r = x; for (int k = 1; k < argc; ++k) r = std::min(r, a[k]); break;
                    case F_MOD: r = a[1] != 0 ? std::fmod(x, a[1]) : NAN; break;
                    case F_RAD: r = x * kPi / 180.0; break;
                    case F_RAND:
                    case F_RND: r = x * std::uniform_real_distribution<double>(0.0, 1.0)(rng_); break;
                    case F_RANDOM: {
                        const double lo = argc == 2 ? x : 0.0, hi = argc == 2 ? a[1] : x;
                        r = lo + (hi - lo) * std::uniform_real_distribution<double>(0.0, 1.0)(rng_);
                        break;
                    }
                    case F_SEC: r = 1 / std::cos(x * toRad); break;
                    case F_SECH: r = 1 / std::cosh(x); break;
                    case F_SGN: r = x > 0 ? 1.0 : (x < 0 ? -1.0 : 0.0); break;
                    case F_SIN: r = std::sin(x * toRad); break;
                    case F_SINH: r = std::sinh(x); break;
                    case F_SQR: r = x >= 0 ? std::sqrt(x) : NAN; break;
                    case F_TAN: r = std::tan(x * toRad); break;
                    case F_TANH: r = std::tanh(x); break;
                    default: r = NAN; break;
                }
                if (!std::isfinite(r)) {
                    bool finiteArgs = true;
                    for (int k = 0; k < argc; ++k) finiteArgs = finiteArgs && std::isfinite(a[k]);
                    if (finiteArgs) {
                        fail(std::string("Invalid arguments to function: ") + fnName(in.fn), false, 3);
                        return false;
                    }
                }
                sp -= argc - 1;
                st[sp] = r;
                break;
            }
        }
    }
    value_ = sp >= 0 ? st[sp] : 0.0;
    if (!std::isfinite(value_)) {
        fail("Overflow", true, 4);
        return false;
    }
    if (!error_.empty()) error_.clear();
    return true;
}

// ---- FormatEquation --------------------------------------------------------

namespace {


double numberOf(std::string_view text) {
    double v = 0;
    if (ParseNumber(text, v)) return v;
    std::string s;
    for (char c : text)
        if (c != '%') s.push_back(c);
    ParseNumber(s, v);
    return v;
}

}  // namespace

std::string FormatEquation(std::string_view text, std::string_view format, int digits) {
    const bool perNumber = format == "-1";
    std::string s = NormaliseEquationLine(text);
    ReplaceAll(s, "+-", "-");
    ReplaceAll(s, "-+", "-");
    ReplaceAll(s, "+ -", "-");

    std::string out;
    out.reserve(s.size() + 32);
    std::string num;
    auto flush = [&] {
        if (num.empty()) return;
        if (IsNumericValue(std::string_view(num))) {
            const double v = numberOf(num);
            out += perNumber ? Format(v, CalcTickFormat(v, digits).format)
                             : Format(v, format);
        } else {
            out += num;
        }
        num.clear();
    };
    for (char c : s) {
        const bool sign = c == '+' || c == '-';
        if (sign && !num.empty() && (num.back() == 'e' || num.back() == 'E')) {
            num.push_back(c);
        } else if (sign || c == '(' || c == ')' || c == '*' || c == '/' || c == 'X' || c == 'x') {
            flush();
            out.push_back(c);
        } else {
            num.push_back(c);
        }
    }
    flush();
    return out;
}

}  // namespace zorv
