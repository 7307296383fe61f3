// The machinery under Simulate: a seeded random stream that gives the same
// numbers on every library, a buffered file that appears only when complete,
// a small JSON writer, and the plan of one simulated lot (its shape, columns
// and model) that the writer streams out. Private to the import subsystem.
#pragma once

#include <cstdint>
#include <cstdio>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "base/proc.h"
#include "import/simulate.h"

namespace zorv::sim {

// xoshiro256** seeded through splitmix64; normal draws by Box-Muller, so the
// stream is ours and not the standard library's.
class Rng {
public:
    explicit Rng(std::uint64_t seed);
    std::uint64_t next();
    // (0, 1]
    double uniform();
    double gauss();
    // 0 .. n-1
    std::uint64_t below(std::uint64_t n);

private:
    std::uint64_t s_[4];
    double spare_ = 0;
    bool hasSpare_ = false;
};

// A file written through a large buffer into "<path>.part", renamed to its
// path by commit(); dropped unless committed.
class OutFile {
public:
    OutFile() = default;
    ~OutFile();
    OutFile(const OutFile&) = delete;
    OutFile& operator=(const OutFile&) = delete;

    bool open(const std::string& path, LineEnd eol);
    // Flushes and closes the ".part" file; publish() then gives it its name.
    bool finish();
    bool publish();
    // Takes a published file away again (a later file of the same run failed).
    void unpublish();
    // Room for `n` more bytes at cursor(); flushes when the buffer is full.
    char* reserve(size_t n);
    void advance(char* end) { n_ = static_cast<size_t>(end - buf_.get()); }
    void put(std::string_view s);
    void eol();
    bool ok() const { return ok_; }
    const std::string& path() const { return path_; }

private:
    bool flush();
    std::FILE* f_ = nullptr;
    std::string path_, part_;
    // Not cleared first: a small file touches only the pages it writes.
    std::unique_ptr<char[]> buf_;
    size_t cap_ = 0, n_ = 0;
    std::string eol_;
    bool ok_ = true;
    bool published_ = false;
};

// Appends `v` rounded to `decimals` (never "-0.00"); returns the new end.
char* PutFixed(char* p, double v, int decimals);
std::string Fixed(double v, int decimals);
// Shortest text that reads back as the same double.
std::string Shortest(double v);

// JSON text, indented; a container opened flat keeps its elements on one line.
class JsonWriter {
public:
    JsonWriter& beginObject(bool flat = false) { open('{', flat); return *this; }
    JsonWriter& endObject() { close('}'); return *this; }
    JsonWriter& beginArray(bool flat = false) { open('[', flat); return *this; }
    JsonWriter& endArray() { close(']'); return *this; }
    JsonWriter& key(std::string_view k);
    JsonWriter& value(std::string_view s);
    JsonWriter& value(const char* s) { return value(std::string_view(s)); }
    JsonWriter& value(const std::string& s) { return value(std::string_view(s)); }
    JsonWriter& value(double d);
    JsonWriter& value(long long i);
    JsonWriter& value(int i) { return value(static_cast<long long>(i)); }
    JsonWriter& value(long i) { return value(static_cast<long long>(i)); }
    JsonWriter& value(bool b);
    // A number already in JSON form (a seed beyond 2^53 keeps every digit).
    JsonWriter& number(std::string_view text);
    template <class T>
    JsonWriter& field(std::string_view k, const T& v) { key(k); return value(v); }
    const std::string& str() const { return out_; }

private:
    struct Level {
        bool flat;
        bool first;
    };
    void element();
    void open(char c, bool flat);
    void close(char c);
    void quoted(std::string_view s);
    std::string out_;
    std::vector<Level> levels_;
    bool afterKey_ = false;
};

// One field of the grid: its index on the wafer map and what it was exposed with.
struct SimField {
    long dieX = 0, dieY = 0;
    double centreX = 0, centreY = 0;  // mm
    double focus = 0, dose = 0;       // as written
};

// One site of the field, at whole micrometres so both file units are exact.
struct SimSite {
    int number = 0;
    long xUm = 0, yUm = 0;
    double x() const { return xUm / 1000.0; }
    double y() const { return yUm / 1000.0; }
};

struct SimFeature {
    std::string column;    // the file's header
    std::string name;      // as the workbook names it
    std::string unit;      // in the workbook
    std::string fileUnit;  // in the file
    double toWorkbook = 1;
    int decimals = 2;
};

inline constexpr int kMaxFeatures = 4;

// Model: the noiseless values of every feature at one site of one field of
// wafer `wafer` (an index of LotPlan::wafers; a thermal map's wafers are its times).
using ModelFn = std::function<void(int wafer, const SimField&, const SimSite&, double* out)>;

// A run of columns whose text depends on one thing only.
enum class Source { Wafer, Field, Site };
struct Segment {
    Source source;
    std::vector<std::string> text;  // one per wafer, field or site, with its separators
};

// What one row of the stream became, for truth.json.
struct RowNote {
    long long line = 0;
    int wafer = 0, field = 0, site = 0;
    double model[kMaxFeatures] = {};
    double noise[kMaxFeatures] = {};
    double offset[kMaxFeatures] = {};
    std::string text[kMaxFeatures];
    std::string expect;  // failed rows: "skipped" or "excluded"
};

// Everything the stream writer needs to know about one simulated lot.
struct LotPlan {
    std::vector<std::string> wafers;
    int fieldsX = 1, fieldsY = 1;
    std::vector<SimField> fields;  // one wafer's, the same on every wafer
    std::vector<SimSite> sites;
    std::vector<SimFeature> features;
    double fieldSizeX = 26, fieldSizeY = 33;  // mm
    bool focusDose = true;                    // fields carry focus and dose

    // The file: lines before the data, the row's columns, then the values.
    std::vector<std::string> headerLines;
    std::vector<Segment> segments;
    bool fixedColumns = false;           // values padded to widths, not separated
    std::vector<int> valueWidths;        // fixed columns: width of each value column but the last
    char separator = ',';

    ModelFn model;
    double noise = 0;
    // Outliers: offsets drawn between these magnitudes (file unit), either sign;
    // with positiveValues a sign that would take the value below half the model is turned.
    double outlierMin = 0, outlierMax = 0;
    bool positiveValues = false;
    // Failed measurements: the texts written in turn and what a reader does with each.
    std::vector<std::pair<std::string, std::string>> failTexts;

    long long rows() const {
        return static_cast<long long>(wafers.size()) * static_cast<long long>(fields.size()) *
               static_cast<long long>(sites.size());
    }
};

// The rows that are not plain: chosen before the stream.
struct SpecialRows {
    std::vector<long long> outliers, failed, checks;  // row indices from 0, sorted
};
[[nodiscard]] Status PickSpecialRows(Proc& p, long long rows, int outliers, int failed, int checks,
                                     std::uint64_t seed, SpecialRows& out);

struct StreamNotes {
    std::vector<RowNote> outliers, failed, checks;
    long long rows = 0;
    long long firstDataLine = 0;
};

// Writes the header lines and every data row of `plan` to `file`.
[[nodiscard]] Status WriteLotFile(Proc& p, const LotPlan& plan, const SpecialRows& special,
                                  std::uint64_t seed, OutFile& file, StreamNotes& notes);

// Column helpers for fixed-column text: `s` padded with blanks to `width`.
void PadTo(std::string& s, size_t width);

// A model coefficient: its default or the value asked for.
struct Coefficient {
    std::string name;
    double value;
    std::string unit;
    std::string meaning;
};
double CoefficientOf(const std::vector<Coefficient>& c, std::string_view name);

// The defaults of a kind.
struct KindDefaults {
    int wafers = 1, fieldsX = 1, fieldsY = 1, sites = 1;
    double noise = 0;
    int outliers = 0, failed = 0;
    double focusCentre = 0, focusSpan = 0, doseCentre = 0, doseSpan = 0;
    bool focusDose = true;  // fields carry a focus and a dose
    // The layouts the kind may be written in, "|" between them; the first is the default.
    const char* layouts = "csv";
    bool canFail = true;    // the layout has a mark for a failed measurement
    const char* dataType = "CDsem";
};

// One kind of simulated lot: its defaults, its model and what it adds to the truth.
class SimKind {
public:
    virtual ~SimKind() = default;
    virtual KindDefaults defaults() const = 0;
    virtual std::vector<Coefficient> coefficients() const = 0;
    // Features, model, outlier sizes and failed texts, once the shape is set.
    [[nodiscard]] virtual Status prepare(Proc& p, LotPlan& plan, const std::vector<Coefficient>& c, bool kla,
                                         std::uint64_t seed) = 0;
    virtual std::string formula() const = 0;
    // The kind's own members of "model" in truth.json.
    virtual void writeModel(JsonWriter& j, const LotPlan& plan) const {
        (void)j;
        (void)plan;
    }
    // A second file beside the lot (the reticle's mask measurement), written to `out`.
    virtual bool hasCompanion() const { return false; }
    [[nodiscard]] virtual Status writeCompanion(Proc& p, const LotPlan& plan, OutFile& out) {
        (void)p;
        (void)plan;
        (void)out;
        return StatusOk();
    }
};
// nullptr for a kind not known.
std::unique_ptr<SimKind> MakeSimKind(std::string_view kind);

// Seeds of the independent streams of one run, so that a change in one (more
// outliers) leaves the others (the noise of every row) as they were.
inline constexpr std::uint64_t kNoiseStream = 0x6e6f697365ULL;
inline constexpr std::uint64_t kPickStream = 0x7069636bULL;
inline constexpr std::uint64_t kOffsetStream = 0x6f6666ULL;
inline constexpr std::uint64_t kSiteStream = 0x73697465ULL;

}  // namespace zorv::sim
