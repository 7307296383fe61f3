// clsEquation: a text expression with named variables, parsed once into a
// small stack program and solved many times as only the values change.
//
// Binding, tightest first: "^" (left to right, its right operand may carry a
// sign), unary minus and plus, then "*" "/" "\" (integer division) "%"
// (remainder), then "+" "-". Names are compared in lower case. "pi", "e" and
// "rnd" stand alone unless a variable of that name shadows them.
#pragma once

#include <cstdint>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "base/datam.h"
#include "numerics/notes.h"

namespace zorv {

class clsEquation {
public:
    clsEquation() = default;
    explicit clsEquation(std::string_view text) { setEquation(text); }

    // Equation (set): blanks and line ends normalised, "+-" and "+ -" made
    // "-", lower-cased; the next Solve parses again.
    void setEquation(std::string_view text);
    const std::string& Equation() const noexcept { return text_; }

    // Var (set): replaces a value, or adds a variable (which forces a parse).
    void Var(std::string_view name, double value);
    // Var (get): 0 for an unknown name.
    double Var(std::string_view name) const;
    bool HasVar(std::string_view name) const { return find(name) >= 0; }
    void VarRemove(std::string_view name);
    void VarClear();
    int VarCount() const noexcept { return static_cast<int>(names_.size()); }

    // Fast path for loops over sites: the slot of a variable (added with value
    // 0 when new) whose value SetSlot then changes without any name look-up.
    int VarSlot(std::string_view name);
    void SetSlot(int slot, double value) noexcept { vals_[static_cast<size_t>(slot)] = value; }

    // Names of the variables the text uses, in order of first use: a vector
    // (rows 1..n, column 1); not an array when the text uses none.
    Datam GetmvarVarNames() const;
    // The text with the variables' values put in.
    std::string Condense() const;

    // Parses when needed, then evaluates. False on failure. The failure,
    // under "clsEqn(Solve):", goes to the first failing call after a parse
    // that passes notes, and to no other: a loop over sites has one to show.
    bool Solve(Notes* notes = nullptr);
    // Solve, then the value (0 after a failure).
    double Solution(Notes* notes = nullptr) {
        Solve(notes);
        return value_;
    }
    double LastValue() const noexcept { return value_; }

    bool Degrees() const noexcept { return degrees_; }
    void setDegrees(bool on) noexcept { degrees_ = on; }

    // Failure text of the last parse or evaluation ("" when it went well).
    const std::string& LastError() const noexcept { return error_; }

    void Kill();

    // Opcodes of the compiled form (public for the evaluator's tables).
    enum class Op : uint8_t { Const, Var, Neg, Add, Sub, Mul, Div, IntDiv, Mod, Pow, PowInt, Func, Rnd };
    struct Instr {
        Op op;
        uint8_t fn = 0;    // function id (Func)
        uint16_t argc = 0; // argument count (Func)
        int32_t idx = 0;   // variable slot (Var), exponent (PowInt)
        double c = 0;      // constant (Const)
    };

private:
    int find(std::string_view name) const;
    bool parse();
    bool evaluate();
    void fail(std::string text, bool runtime, float chk);
    void tell(Notes* notes);

    std::string text_;
    std::vector<std::string> names_;  // lower case
    std::vector<double> vals_;
    std::vector<Instr> code_;
    std::vector<double> stack_;
    std::string error_;
    bool errorRuntime_ = false;  // a run-time error rather than a composed message
    float errorChk_ = 0;
    double value_ = 0;
    bool needParse_ = true;
    bool parseFailed_ = false;
    bool told_ = false;  // the failure since the last parse was handed out
    bool degrees_ = false;
    std::mt19937_64 rng_{0x5eed};
};

// Utility.FormatEquation: writes each number of an equation text through
// `format`; with the format "-1" each number gets the tick format of
// `digits` significant digits worked out from its own value.
std::string FormatEquation(std::string_view text, std::string_view format, int digits);

// Blanks, tabs and line ends become single blanks; the ends are trimmed.
std::string NormaliseEquationLine(std::string_view text);

}  // namespace zorv
