// The tag-and-checkpoint convention. A procedure declares
//     Proc p("cLot(ModelFit): ");
// raises p.chk as it proceeds, composes a user message in p.msg or records a
// run-time error with p.error(); on exit the block reports them through
// MsgBox (flags 64 for a composed message, 16 for an error).
#pragma once

#include <exception>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

namespace zorv {

// What a failed procedure says: its tag, its checkpoint, and the text.
struct Failure {
    std::string tag;
    float chk = 0;
    std::string text;
    bool runtime = false;  // a run-time error rather than a composed message
    // tag, CR LF, text, " chk: ", chk
    std::string message() const;
};

class Proc {
public:
    explicit Proc(std::string_view tag) : tag_(tag) {}
    ~Proc() { finish(); }
    Proc(const Proc&) = delete;
    Proc& operator=(const Proc&) = delete;

    float chk = 0;
    std::string msg;  // a message the procedure composed itself

    const std::string& tag() const { return tag_; }
    // Records a run-time error (what an exception or a failed call says).
    void error(std::string description) { err_ = std::move(description); }
    bool failed() const { return !msg.empty() || err_.has_value(); }
    // Composes the failure without reporting it.
    Failure failure() const;
    // Runs the exit block now (reports once); the destructor is then quiet.
    void finish();
    // Leaves the exit block silent: the caller reports or ignores the failure.
    void quiet() { done_ = true; }

private:
    std::string tag_;
    std::optional<std::string> err_;
    bool done_ = false;
};

// Runs f, turning an escaping exception into the procedure's run-time error.
// Returns false when f threw.
template <class F>
bool Guarded(Proc& p, F&& f) {
    try {
        std::forward<F>(f)();
        return true;
    } catch (const std::exception& e) {
        p.error(e.what());
    } catch (...) {
        p.error("Unknown error");
    }
    return false;
}

// A value or the failure that took its place.
template <class T>
class Result {
public:
    Result(T v) : v_(std::move(v)) {}
    Result(Failure f) : f_(std::move(f)) {}
    bool ok() const { return v_.has_value(); }
    explicit operator bool() const { return ok(); }
    T& value() { return *v_; }
    const T& value() const { return *v_; }
    T& operator*() { return *v_; }
    const T& operator*() const { return *v_; }
    T* operator->() { return &*v_; }
    const T* operator->() const { return &*v_; }
    const Failure& failure() const { return f_; }

private:
    std::optional<T> v_;
    Failure f_;
};

}  // namespace zorv
