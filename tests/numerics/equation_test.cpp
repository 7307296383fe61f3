#include <gtest/gtest.h>

#include <cmath>
#include <numbers>
#include <vector>

#include "base/report.h"
#include "numerics/equation.h"

using namespace zorv;

namespace {

double eval(std::string_view text, std::initializer_list<std::pair<const char*, double>> vars = {},
            bool degrees = false) {
    clsEquation e(text);
    e.setDegrees(degrees);
    for (const auto& [n, v] : vars) e.Var(n, v);
    EXPECT_TRUE(e.Solve()) << text << ": " << e.LastError();
    return e.LastValue();
}

std::string failure(std::string_view text, std::initializer_list<std::pair<const char*, double>> vars = {}) {
    clsEquation e(text);
    for (const auto& [n, v] : vars) e.Var(n, v);
    EXPECT_FALSE(e.Solve()) << text;
    EXPECT_EQ(e.Solution(), 0.0);
    return e.LastError();
}

}  // namespace

TEST(Equation, PrecedenceAndUnaryMinus) {
    EXPECT_DOUBLE_EQ(eval("1+2*3"), 7);
    EXPECT_DOUBLE_EQ(eval("2*3^2"), 18);        // ^ before *
    EXPECT_DOUBLE_EQ(eval("12/2^2"), 3);
    EXPECT_DOUBLE_EQ(eval("(1+2)*3"), 9);
    EXPECT_DOUBLE_EQ(eval("8-3-2"), 3);         // left to right
    EXPECT_DOUBLE_EQ(eval("16/4/2"), 2);
    EXPECT_DOUBLE_EQ(eval("2*-3"), -6);
    EXPECT_DOUBLE_EQ(eval("-2^2"), -4);         // the sign binds looser than ^
    EXPECT_DOUBLE_EQ(eval("2^-1"), 0.5);
    EXPECT_DOUBLE_EQ(eval("2^3^2"), 64);        // left to right, as the sheet does
    EXPECT_DOUBLE_EQ(eval("-(-3)"), 3);
    EXPECT_DOUBLE_EQ(eval("5 - -3"), 8);
    EXPECT_DOUBLE_EQ(eval("3 +- 1"), 2);        // "+-" normalised on entry
    EXPECT_DOUBLE_EQ(eval("3 + - 1"), 2);
    EXPECT_DOUBLE_EQ(eval("1 + + 2"), 3);       // unary plus (aberration model texts)
    EXPECT_DOUBLE_EQ(eval("2.5^0.5"), std::sqrt(2.5));
    EXPECT_DOUBLE_EQ(eval("7\\2"), 3);          // integer division
    EXPECT_DOUBLE_EQ(eval("7%3"), 1);
    EXPECT_DOUBLE_EQ(eval("1 +\r\n 2\t* 3"), 7);  // line ends and tabs are blanks
}

TEST(Equation, NumbersAndConstants) {
    EXPECT_DOUBLE_EQ(eval("1e-3"), 0.001);
    EXPECT_DOUBLE_EQ(eval("1E+2"), 100);
    EXPECT_DOUBLE_EQ(eval("2e3*2"), 4000);
    EXPECT_DOUBLE_EQ(eval("e"), std::numbers::e);
    EXPECT_DOUBLE_EQ(eval("2*e"), 2 * std::numbers::e);
    EXPECT_DOUBLE_EQ(eval("pi/2"), std::numbers::pi / 2);
    EXPECT_DOUBLE_EQ(eval(".5+2."), 2.5);
    const double r = eval("rnd");
    EXPECT_GE(r, 0);
    EXPECT_LT(r, 1);
}

TEST(Equation, Functions) {
    const double x = 0.3;
    EXPECT_DOUBLE_EQ(eval("sin(x)", {{"x", x}}), std::sin(x));
    EXPECT_DOUBLE_EQ(eval("cos(x)^2 + sin(x)^2", {{"x", x}}), 1);
    EXPECT_DOUBLE_EQ(eval("tan(x)", {{"x", x}}), std::tan(x));
    EXPECT_DOUBLE_EQ(eval("sec(x)", {{"x", x}}), 1 / std::cos(x));
    EXPECT_DOUBLE_EQ(eval("cosec(x)", {{"x", x}}), 1 / std::sin(x));
    EXPECT_DOUBLE_EQ(eval("cotan(x)", {{"x", x}}), 1 / std::tan(x));
    EXPECT_DOUBLE_EQ(eval("arcsin(x)", {{"x", x}}), std::asin(x));
    EXPECT_DOUBLE_EQ(eval("arccos(x)", {{"x", x}}), std::acos(x));
    EXPECT_DOUBLE_EQ(eval("arctan(x)", {{"x", x}}), std::atan(x));
    EXPECT_DOUBLE_EQ(eval("atan(x) - atn(x)", {{"x", x}}), 0);
    EXPECT_NEAR(eval("arccotan(x)", {{"x", x}}), std::atan(1 / x), 1e-15);
    EXPECT_NEAR(eval("arcsec(3)"), std::acos(1.0 / 3), 1e-15);
    EXPECT_NEAR(eval("arccosec(3)"), std::asin(1.0 / 3), 1e-15);
    EXPECT_DOUBLE_EQ(eval("sinh(x)", {{"x", x}}), std::sinh(x));
    EXPECT_DOUBLE_EQ(eval("cosh(x)", {{"x", x}}), std::cosh(x));
    EXPECT_DOUBLE_EQ(eval("tanh(x)", {{"x", x}}), std::tanh(x));
    EXPECT_DOUBLE_EQ(eval("sech(x)", {{"x", x}}), 1 / std::cosh(x));
    EXPECT_DOUBLE_EQ(eval("cosech(x)", {{"x", x}}), 1 / std::sinh(x));
    EXPECT_DOUBLE_EQ(eval("cotanh(x)", {{"x", x}}), 1 / std::tanh(x));
    EXPECT_DOUBLE_EQ(eval("arcsinh(x)", {{"x", x}}), std::asinh(x));
    EXPECT_DOUBLE_EQ(eval("arccosh(2)"), std::acosh(2.0));
    EXPECT_DOUBLE_EQ(eval("arctanh(x)", {{"x", x}}), std::atanh(x));
    EXPECT_DOUBLE_EQ(eval("arcsech(x)", {{"x", x}}), std::acosh(1 / x));
    EXPECT_DOUBLE_EQ(eval("arccosech(x)", {{"x", x}}), std::asinh(1 / x));
    EXPECT_DOUBLE_EQ(eval("arccotanh(3)"), std::atanh(1.0 / 3));
    EXPECT_DOUBLE_EQ(eval("abs(-2.5)"), 2.5);
    EXPECT_DOUBLE_EQ(eval("exp(1)"), std::numbers::e);
    EXPECT_DOUBLE_EQ(eval("ln(e)"), 1);
    EXPECT_DOUBLE_EQ(eval("log(1000)"), 3);
    EXPECT_DOUBLE_EQ(eval("log10(0.01)"), -2);
    EXPECT_DOUBLE_EQ(eval("log2(8)"), 3);
    EXPECT_DOUBLE_EQ(eval("logn(81, 3)"), 4);
    EXPECT_DOUBLE_EQ(eval("sqr(16)"), 4);
    EXPECT_DOUBLE_EQ(eval("int(-2.5)"), -3);
    EXPECT_DOUBLE_EQ(eval("fix(-2.5)"), -2);
    EXPECT_DOUBLE_EQ(eval("sgn(-4) + sgn(0) + sgn(3)"), 0);
    EXPECT_DOUBLE_EQ(eval("max(1, 5, 3)"), 5);
    EXPECT_DOUBLE_EQ(eval("min(4, -2)"), -2);
    EXPECT_DOUBLE_EQ(eval("mod(7, 4)"), 3);
    EXPECT_DOUBLE_EQ(eval("deg(pi)"), 180);
    EXPECT_DOUBLE_EQ(eval("rad(180)"), std::numbers::pi);
    EXPECT_DOUBLE_EQ(eval("SIN (0)"), 0);  // a blank before the parenthesis
    for (const char* r : {"rand(2)", "rnd(2)", "random(2)", "random(1, 2)"}) {
        const double v = eval(r);
        EXPECT_GE(v, 0) << r;
        EXPECT_LT(v, 2) << r;
    }
}

TEST(Equation, Degrees) {
    EXPECT_DOUBLE_EQ(eval("sin(90)", {}, true), 1);
    EXPECT_NEAR(eval("cos(60)", {}, true), 0.5, 1e-15);
    EXPECT_NEAR(eval("arctan(1)", {}, true), 45, 1e-13);
    EXPECT_NEAR(eval("sin(90)", {}, false), std::sin(90.0), 1e-15);
    // Switching the flag on a parsed equation changes the next solution.
    clsEquation e("sin(x)");
    e.Var("x", 30);
    e.setDegrees(true);
    EXPECT_NEAR(e.Solution(), 0.5, 1e-15);
    e.setDegrees(false);
    EXPECT_NEAR(e.Solution(), std::sin(30.0), 1e-15);
}

TEST(Equation, VariablesAreCaseBlindAndResolveWithNewValues) {
    clsEquation e("X^2 + 2*Theta - r");
    EXPECT_EQ(e.Equation(), "x^2 + 2*theta - r");
    e.Var("x", 3);
    e.Var("THETA", 1);
    e.Var("R", 4);
    EXPECT_DOUBLE_EQ(e.Solution(), 7);
    e.Var("theta", 2.5);  // a value change only
    e.Var("X", -1);
    EXPECT_DOUBLE_EQ(e.Solution(), 2);
    EXPECT_DOUBLE_EQ(e.Var("Theta"), 2.5);
    EXPECT_TRUE(e.HasVar("tHeTa"));
    EXPECT_EQ(e.VarCount(), 3);

    // Slots address the same storage without look-ups.
    const int sx = e.VarSlot("x");
    e.SetSlot(sx, 10);
    EXPECT_DOUBLE_EQ(e.Solution(), 100 + 5 - 4);

    // A new text keeps the variables.
    e.setEquation("x*r");
    EXPECT_DOUBLE_EQ(e.Solution(), 40);

    Datam names = clsEquation("x*Y + sin(theta) - pi*x + e").GetmvarVarNames();
    ASSERT_TRUE(names.isArray());
    ASSERT_EQ(names.rowUb(), 3);
    EXPECT_EQ(names(1, 1).str(), "x");
    EXPECT_EQ(names(2, 1).str(), "y");
    EXPECT_EQ(names(3, 1).str(), "theta");
    EXPECT_FALSE(clsEquation("1+2").GetmvarVarNames().isArray());
}

TEST(Equation, CondensePutsValuesIn) {
    clsEquation e("2*x + y^2 - exp(x)");
    e.Var("x", 1.5);
    e.Var("y", -2);
    EXPECT_EQ(e.Condense(), "2*1.5 + (-2)^2 - exp(1.5)");
    clsEquation f("1e-3*x");
    f.Var("e", 7);  // the exponent's "e" is not the variable
    f.Var("x", 2);
    EXPECT_EQ(f.Condense(), "1e-3*2");
}

TEST(Equation, RemovingAVariableForcesAParse) {
    clsEquation e("a+b");
    e.Var("a", 1);
    e.Var("b", 2);
    EXPECT_DOUBLE_EQ(e.Solution(), 3);
    e.VarRemove("B");
    EXPECT_FALSE(e.Solve());
    EXPECT_EQ(e.LastError(), "Undefined Variable: b");
    e.Var("b", 5);
    EXPECT_DOUBLE_EQ(e.Solution(), 6);
    e.VarClear();
    EXPECT_FALSE(e.Solve());
}

TEST(Equation, FailuresCarryTheirMessages) {
    EXPECT_EQ(failure("(1+2"), "Unbalanced parenthesis");
    EXPECT_EQ(failure("1+2)"), "Unbalanced parenthesis");
    EXPECT_EQ(failure(")1+2("), "Unbalanced parenthesis");
    EXPECT_EQ(failure("foo(2)"), "Undefined Function: foo");
    EXPECT_EQ(failure("2*Zeta"), "Undefined Variable: zeta");
    EXPECT_EQ(failure("sqr(-1)"), "Invalid arguments to function: sqr");
    EXPECT_EQ(failure("ln(0)"), "Invalid arguments to function: ln");
    EXPECT_EQ(failure("arcsin(x)", {{"x", 2}}), "Invalid arguments to function: arcsin");
    EXPECT_EQ(failure("logn(2)"), "Invalid arguments to function: logn");
    EXPECT_EQ(failure("1+*2"), " Invalid Equation:1+*2");
    EXPECT_EQ(failure("2 3"), " Invalid Equation:2 3");
    EXPECT_EQ(failure("2#3"), " Invalid Equation:2#3");
    EXPECT_EQ(failure(""), " Invalid Equation:");
    EXPECT_EQ(failure("1/x", {{"x", 0}}), "Division by zero");
    EXPECT_EQ(failure("10^400"), "Overflow");
}

TEST(Equation, FailureIsReportedOnceUnderTheTag) {
    clsEquation e("1/x");
    e.Var("x", 2);
    Notes ok;
    EXPECT_DOUBLE_EQ(e.Solution(&ok), 0.5);
    EXPECT_FALSE(ok.failure);
    e.setEquation("(x");
    std::vector<Failure> told;
    for (int i = 0; i < 3; ++i) {
        Notes n;
        EXPECT_FALSE(e.Solve(&n));
        if (n.failure) told.push_back(*n.failure);
    }
    ASSERT_EQ(told.size(), 1u);
    EXPECT_EQ(told[0].message(), "clsEqn(Solve):\r\nUnbalanced parenthesis chk: 1");
    EXPECT_EQ(told[0].boxFlags(), vbInformation);
    // Recovers once the text is good again.
    e.setEquation("x*3");
    EXPECT_DOUBLE_EQ(e.Solution(), 6);
    EXPECT_TRUE(e.LastError().empty());
}

// An evaluation failure is a run-time error, told to the first caller that
// asks; a new parse tells again.
TEST(Equation, RunTimeFailureGoesToTheFirstCallerThatAsks) {
    clsEquation e("1/x");
    e.Var("x", 0);
    EXPECT_FALSE(e.Solve());
    Notes n;
    EXPECT_EQ(e.Solution(&n), 0.0);
    ASSERT_TRUE(n.failure);
    EXPECT_EQ(n.failure->message(), "clsEqn(Solve):\r\nDivision by zero chk: 3");
    EXPECT_EQ(n.failure->boxFlags(), vbCritical);
    Notes again;
    EXPECT_FALSE(e.Solve(&again));
    EXPECT_FALSE(again.failure);
    e.setEquation("2/x");
    EXPECT_FALSE(e.Solve(&again));
    ASSERT_TRUE(again.failure);
    EXPECT_EQ(again.failure->text, "Division by zero");
}

TEST(FormatEquation, PerNumberTickFormat) {
    // 3 significant digits: e = 0 gives 3 decimals, e = -3 gives 6, e = 2 gives 3.
    // Blanks collected with a number are lost with it; others stay.
    EXPECT_EQ(FormatEquation("1.23456 + 0.00123456*X + 123.456*X^2", "-1", 3),
              "1.235+0.001235*X +123.456*X^2");
    // A sign behind an exponent stays in the number.
    EXPECT_EQ(FormatEquation("2.5E-03*x", "-1", 1), "0.0025*x");
    // "+-" and "-+" collapse before the walk.
    EXPECT_EQ(FormatEquation("1.5 +-2.26*X", "0.0", 0), "1.5-2.3*X");
    EXPECT_EQ(FormatEquation("1.5 -+2.25*X", "0.00", 0), "1.50-2.25*X");
    // Text that is not a number goes out as it stands.
    EXPECT_EQ(FormatEquation("a1 * sin(theta)", "0.0", 0), "a1 * sin(theta)");
}

TEST(FormatEquation, RoundedTextEvaluatesToRoundedValue) {
    clsEquation e(FormatEquation("0.123456 + 2.345678*X", "-1", 3));
    e.Var("x", 2);
    EXPECT_NEAR(e.Solution(), 0.1235 + 2 * 2.346, 1e-12);
}
