// Failures as values, and the tag-and-checkpoint convention.
//
// A routine that can fail on user input returns a [[nodiscard]] Result<T> (or
// Status) whose failure carries its tag, checkpoint and text, and where the
// input was wrong as fields (file, sheet, row, column). It is shown once, with
// Report(), by the routine that owns the message or by the front (a window or
// zorv-cli); the routines below never show it themselves. A procedure keeps
// its tag and checkpoint in a Proc:
//     Proc p("cLot(ModelFit): ");
//     p.chk = 3;
//     if (bad) return p.fail("Model not found");
// Warnings that do not stop a routine and questions still go through MsgBox
// (the numerics toolkit hands them back in its Notes instead).
#pragma once

#include <cassert>
#include <exception>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>

namespace zorv {

// What a failed procedure says: its tag, its checkpoint, and the text.
struct Failure {
    std::string tag;
    float chk = 0;
    std::string text;
    bool runtime = false;  // a run-time error (box flags 16) rather than a composed message (64)
    // Where the input was wrong; empty or 0 when not known or not a file.
    std::string file;
    std::string sheet;
    long row = 0;
    int col = 0;
    // The word before the checkpoint: " chk: ", or " Chk: " where a routine
    // traps its own errors (the structural operations of the tree).
    std::string_view chkLabel = " chk: ";

    // tag, CR LF, text, chkLabel, chk
    std::string message() const;
    int boxFlags() const;
};

// Shows a failure once through the reporting path, as its procedure's exit
// block: box flags 64 for a composed message, 16 for a run-time error.
void Report(const Failure& f);

// A value or the failure that took its place.
template <class T>
class [[nodiscard]] Result {
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
    // Shows the failure, if any, and passes the result on.
    Result&& reported() && {
        if (!ok()) Report(f_);
        return std::move(*this);
    }

private:
    std::optional<T> v_;
    Failure f_;
};

// Success or the failure that took its place.
using Status = Result<std::monostate>;
inline Status StatusOk() { return Status(std::monostate{}); }

// The tag and checkpoint of one procedure while it runs. It reports nothing by
// itself: the procedure returns fail()/failure() to its caller, or calls
// report() where it owns the message.
class Proc {
public:
    explicit Proc(std::string_view tag) : tag_(tag) {}
    // Debug builds check that no failure was dropped on the floor.
    ~Proc() { assert(!failed() || done_); }
    Proc(const Proc&) = delete;
    Proc& operator=(const Proc&) = delete;

    float chk = 0;
    std::string msg;  // a message the procedure composed itself

    const std::string& tag() const { return tag_; }
    // Traps in the structural style (" Chk: ").
    void trapStyle() { chkLabel_ = " Chk: "; }
    // Records a run-time error (what an exception or a failed call says).
    void error(std::string description) { err_ = std::move(description); }
    bool failed() const { return !msg.empty() || err_.has_value(); }
    // Composes the failure (the run-time error when there is one) and marks it handled.
    Failure failure();
    // Composes a message failure with this text at the current checkpoint.
    Failure fail(std::string text) {
        msg = std::move(text);
        return failure();
    }
    // Shows what failed (message, then run-time error) through the reporting path.
    void report();
    // Marks the failure handled without showing it: the caller was told otherwise.
    void quiet() { done_ = true; }

private:
    std::string tag_;
    std::optional<std::string> err_;
    std::string_view chkLabel_ = " chk: ";
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


}  // namespace zorv
