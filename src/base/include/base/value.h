// Tagged value: the cell type of every table. 16 bytes; text and arrays are
// immutable, reference-counted and shared between copies.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <string_view>

namespace zorv {

class Datam;

enum class VType : uint8_t {
    Empty = 0,
    Null,
    Error,    // error code in i32
    Integer,  // 16-bit
    Long,     // 32-bit
    Single,   // 32-bit float
    Double,
    Date,     // serial days since 1899-12-30, fraction is the time of day
    String,
    Boolean,  // True is -1
    Array,    // a shared Datam
};

namespace detail {
struct StrRep {
    std::atomic<uint32_t> rc;
    uint32_t len;
    char data[1];  // len bytes and a terminating NUL
};
struct ArrRep;
}  // namespace detail

class Value {
public:
    Value() noexcept : u_{}, t_(VType::Empty) {}
    Value(double d) noexcept : t_(VType::Double) { u_.d = d; }
    Value(float f) noexcept : t_(VType::Single) { u_.f = f; }
    Value(int32_t l) noexcept : t_(VType::Long) { u_.i = l; }
    Value(int16_t i) noexcept : t_(VType::Integer) { u_.i = i; }
    Value(bool b) noexcept : t_(VType::Boolean) { u_.i = b ? -1 : 0; }
    Value(std::string_view s);
    Value(const char* s) : Value(std::string_view(s)) {}
    Value(const std::string& s) : Value(std::string_view(s)) {}
    Value(const Datam& array);
    Value(Datam&& array);

    static Value date(double serial) noexcept { Value v(serial); v.t_ = VType::Date; return v; }
    static Value error(int32_t code) noexcept { Value v; v.t_ = VType::Error; v.u_.i = code; return v; }
    static Value null() noexcept { Value v; v.t_ = VType::Null; return v; }
    static Value integer(int16_t i) noexcept { return Value(i); }

    Value(const Value& o) noexcept : u_(o.u_), t_(o.t_) { retain(); }
    Value(Value&& o) noexcept : u_(o.u_), t_(o.t_) { o.t_ = VType::Empty; }
    Value& operator=(const Value& o) noexcept {
        if (this != &o) { o.retain(); release(); u_ = o.u_; t_ = o.t_; }
        return *this;
    }
    Value& operator=(Value&& o) noexcept {
        if (this != &o) { release(); u_ = o.u_; t_ = o.t_; o.t_ = VType::Empty; }
        return *this;
    }
    ~Value() { release(); }

    VType type() const noexcept { return t_; }
    bool isEmpty() const noexcept { return t_ == VType::Empty; }
    bool isNull() const noexcept { return t_ == VType::Null; }
    bool isError() const noexcept { return t_ == VType::Error; }
    bool isString() const noexcept { return t_ == VType::String; }
    bool isDate() const noexcept { return t_ == VType::Date; }
    bool isBool() const noexcept { return t_ == VType::Boolean; }
    bool isArray() const noexcept { return t_ == VType::Array; }
    // Integer, Long, Single, Double or Boolean: a value held as a number.
    bool isNumberType() const noexcept {
        return t_ == VType::Integer || t_ == VType::Long || t_ == VType::Single ||
               t_ == VType::Double || t_ == VType::Boolean;
    }

    // Text of a string value; "" for other types (no conversion).
    std::string_view str() const noexcept {
        return t_ == VType::String ? std::string_view(u_.s->data, u_.s->len) : std::string_view();
    }
    // The array of an Array value. Undefined for other types.
    const Datam& array() const;
    int32_t errorCode() const noexcept { return t_ == VType::Error ? u_.i : 0; }

    // Conversions in the manner of the original language: text to number
    // accepts what IsNumeric accepts; empty is 0; a failed conversion gives 0
    // and sets *ok to false.
    double toDouble(bool* ok = nullptr) const;
    float toSingle(bool* ok = nullptr) const { return static_cast<float>(toDouble(ok)); }
    int32_t toLong(bool* ok = nullptr) const;  // rounds half to even
    bool toBool() const;
    // Text form (CStr): doubles with 15 significant digits, singles with 7,
    // Booleans "True"/"False", dates as yyyy-mm-dd [hh:mm:ss], empty "".
    std::string toString() const;
    // Length of the text form, without building it where the type allows.
    size_t textLength() const;

    // IsNumeric of the original language: numbers, Booleans, empty, and text
    // that parses as a number. Dates are not numeric.
    bool isNumericPlain() const;

    // Exact equality of type and content (text compared byte-wise).
    bool identical(const Value& o) const;

private:
    // Only text and arrays are counted; the test stays inline so that copying
    // numbers, the bulk of every table, costs no call.
    void retain() const noexcept {
        if (t_ == VType::String || t_ == VType::Array) retainShared();
    }
    void release() noexcept {
        if (t_ == VType::String || t_ == VType::Array) releaseShared();
        t_ = VType::Empty;
    }
    void retainShared() const noexcept;
    void releaseShared() noexcept;

    union U {
        double d;
        float f;
        int32_t i;
        detail::StrRep* s;
        detail::ArrRep* a;
    } u_;
    VType t_;
};

static_assert(sizeof(Value) <= 16, "a table cell must stay within 16 bytes");

// Length at least 1, not empty, numeric as it stands or after removing "%".
bool IsNumericValue(const Value& v);
bool IsNumericValue(std::string_view text);

// Parses text as the original language's numeric conversion does (leading
// and trailing blanks, sign, decimals, exponent, "&H" hex). False when not a number.
bool ParseNumber(std::string_view text, double& out);

// Text of a double the way CStr writes it (15 significant digits, "1E-05").
std::string NumberToText(double d, int significant = 15);

}  // namespace zorv
