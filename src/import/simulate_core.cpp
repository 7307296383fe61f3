// The random stream, the buffered file, the JSON writer and the row stream
// of Simulate.
#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <unordered_set>

#include "base/report.h"
#include "base/text.h"
#include "simulate_core.h"

namespace zorv::sim {

// ---- Rng ----

namespace {

std::uint64_t SplitMix(std::uint64_t& x) {
    std::uint64_t z = (x += 0x9e3779b97f4a7c15ULL);
    z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ULL;
    z = (z ^ (z >> 27)) * 0x94d049bb133111ebULL;
    return z ^ (z >> 31);
}

inline std::uint64_t Rotl(std::uint64_t x, int k) { return (x << k) | (x >> (64 - k)); }

constexpr double kTwoPi = 6.283185307179586476925286766559;

}  // namespace

Rng::Rng(std::uint64_t seed) {
    std::uint64_t x = seed;
    for (auto& s : s_) s = SplitMix(x);
}

std::uint64_t Rng::next() {
    const std::uint64_t result = Rotl(s_[1] * 5, 7) * 9;
    const std::uint64_t t = s_[1] << 17;
    s_[2] ^= s_[0];
    s_[3] ^= s_[1];
    s_[1] ^= s_[2];
    s_[0] ^= s_[3];
    s_[2] ^= t;
    s_[3] = Rotl(s_[3], 45);
    return result;
}

double Rng::uniform() { return static_cast<double>((next() >> 11) + 1) * 0x1.0p-53; }

double Rng::gauss() {
    if (hasSpare_) {
        hasSpare_ = false;
        return spare_;
    }
    const double r = std::sqrt(-2.0 * std::log(uniform()));
    const double a = kTwoPi * uniform();
    spare_ = r * std::sin(a);
    hasSpare_ = true;
    return r * std::cos(a);
}

std::uint64_t Rng::below(std::uint64_t n) {
    return static_cast<std::uint64_t>((static_cast<unsigned __int128>(next()) * n) >> 64);
}

// ---- OutFile ----

OutFile::~OutFile() {
    if (f_) std::fclose(f_);
    if (!part_.empty() && !published_) std::remove(part_.c_str());
}

bool OutFile::open(const std::string& path, LineEnd eol) {
    path_ = path;
    part_ = path + ".part";
    eol_ = eol == LineEnd::CrLf ? "\r\n" : eol == LineEnd::Lf ? "\n" : "\r";
    f_ = std::fopen(part_.c_str(), "wb");
    if (!f_) {
        part_.clear();
        return ok_ = false;
    }
    cap_ = size_t{4} << 20;
    buf_ = std::make_unique_for_overwrite<char[]>(cap_);
    n_ = 0;
    return ok_ = true;
}

bool OutFile::flush() {
    if (n_ && ok_ && f_ && std::fwrite(buf_.get(), 1, n_, f_) != n_) ok_ = false;
    n_ = 0;
    return ok_;
}

char* OutFile::reserve(size_t n) {
    if (n_ + n > cap_) {
        flush();
        if (n > cap_) {
            cap_ = n;
            buf_ = std::make_unique_for_overwrite<char[]>(cap_);
        }
    }
    return buf_.get() + n_;
}

void OutFile::put(std::string_view s) {
    char* p = reserve(s.size());
    std::memcpy(p, s.data(), s.size());
    n_ += s.size();
}

void OutFile::eol() { put(eol_); }

bool OutFile::finish() {
    if (!f_) return false;
    flush();
    if (std::fclose(f_) != 0) ok_ = false;
    f_ = nullptr;
    return ok_;
}

bool OutFile::publish() {
    if (f_ || !ok_ || part_.empty()) return false;
    std::error_code ec;
    std::filesystem::rename(part_, path_, ec);
    if (ec) return false;
    published_ = true;
    return true;
}

void OutFile::unpublish() {
    if (!published_) return;
    std::remove(path_.c_str());
    published_ = false;
    part_.clear();
}

// ---- numbers ----

namespace {
constexpr double kPow10[] = {1, 10, 100, 1e3, 1e4, 1e5, 1e6, 1e7, 1e8};
}

char* PutFixed(char* p, double v, int decimals) {
    double r = std::round(v * kPow10[decimals]) / kPow10[decimals];
    if (r == 0) r = 0;  // no "-0.00"
    return std::to_chars(p, p + 64, r, std::chars_format::fixed, decimals).ptr;
}

std::string Fixed(double v, int decimals) {
    char buf[80];
    return std::string(buf, PutFixed(buf, v, decimals));
}

std::string Shortest(double v) {
    char buf[32];
    return std::string(buf, std::to_chars(buf, buf + sizeof buf, v).ptr);
}

void PadTo(std::string& s, size_t width) {
    if (s.size() < width) s.append(width - s.size(), ' ');
}

double CoefficientOf(const std::vector<Coefficient>& c, std::string_view name) {
    for (const Coefficient& k : c)
        if (k.name == name) return k.value;
    return 0;
}

// ---- JsonWriter ----

void JsonWriter::element() {
    if (afterKey_) {
        afterKey_ = false;
        return;
    }
    if (levels_.empty()) return;
    Level& l = levels_.back();
    if (l.flat) {
        if (!l.first) out_ += ", ";
    } else {
        if (!l.first) out_ += ',';
        out_ += '\n';
        out_.append(2 * levels_.size(), ' ');
    }
    l.first = false;
}

void JsonWriter::open(char c, bool flat) {
    element();
    out_ += c;
    const bool parentFlat = !levels_.empty() && levels_.back().flat;
    levels_.push_back({flat || parentFlat, true});
}

void JsonWriter::close(char c) {
    const Level l = levels_.back();
    levels_.pop_back();
    if (!l.flat && !l.first) {
        out_ += '\n';
        out_.append(2 * levels_.size(), ' ');
    }
    out_ += c;
}

JsonWriter& JsonWriter::key(std::string_view k) {
    element();
    quoted(k);
    out_ += ": ";
    afterKey_ = true;
    return *this;
}

JsonWriter& JsonWriter::value(std::string_view s) {
    element();
    quoted(s);
    return *this;
}

JsonWriter& JsonWriter::value(double d) {
    element();
    out_ += std::isfinite(d) ? Shortest(d) : std::string("null");
    return *this;
}

JsonWriter& JsonWriter::value(long long i) {
    element();
    out_ += std::to_string(i);
    return *this;
}

JsonWriter& JsonWriter::value(bool b) {
    element();
    out_ += b ? "true" : "false";
    return *this;
}

JsonWriter& JsonWriter::number(std::string_view text) {
    element();
    out_ += text;
    return *this;
}

void JsonWriter::quoted(std::string_view s) { AppendJsonString(out_, s); }

// ---- special rows ----

Status PickSpecialRows(Proc& p, long long rows, int outliers, int failed, int checks, std::uint64_t seed,
                       SpecialRows& out) {
    const long long odd = static_cast<long long>(outliers) + failed;
    if (odd > rows / 2)
        return p.fail("--outliers and --failed ask for " + std::to_string(odd) + " rows of a lot of " +
                      std::to_string(rows) + " rows; at most half the rows may be outliers or failed.");
    Rng rng(seed ^ kPickStream);
    std::unordered_set<long long> used;
    auto draw = [&](int n, std::vector<long long>& into) {
        while (n > 0) {
            const long long r = static_cast<long long>(rng.below(static_cast<std::uint64_t>(rows)));
            if (used.insert(r).second) {
                into.push_back(r);
                --n;
            }
        }
        std::sort(into.begin(), into.end());
    };
    draw(outliers, out.outliers);
    draw(failed, out.failed);
    // Checks spread evenly over the lot, stepping past the odd rows.
    const long long n = std::min<long long>(checks, rows - odd);
    for (long long k = 0; k < n; ++k) {
        long long r = (2 * k + 1) * rows / (2 * n);
        while (used.count(r)) r = (r + 1) % rows;
        used.insert(r);
        out.checks.push_back(r);
    }
    std::sort(out.checks.begin(), out.checks.end());
    return StatusOk();
}

// ---- the row stream ----

namespace {

enum class Odd { None, Outlier, Failed, Check };

// Walks the three sorted lists of special rows alongside the stream.
class OddCursor {
public:
    explicit OddCursor(const SpecialRows& s) : s_(s) {}
    Odd at(long long row, size_t& slot) {
        if (o_ < s_.outliers.size() && s_.outliers[o_] == row) return slot = o_++, Odd::Outlier;
        if (f_ < s_.failed.size() && s_.failed[f_] == row) return slot = f_++, Odd::Failed;
        if (c_ < s_.checks.size() && s_.checks[c_] == row) return slot = c_++, Odd::Check;
        return Odd::None;
    }

private:
    const SpecialRows& s_;
    size_t o_ = 0, f_ = 0, c_ = 0;
};

using Offsets = std::array<double, kMaxFeatures>;

// Outlier offsets, drawn up front from their own stream.
std::vector<Offsets> DrawOffsets(const LotPlan& plan, size_t n, std::uint64_t seed) {
    Rng rng(seed ^ kOffsetStream);
    std::vector<Offsets> offsets(n);
    for (Offsets& o : offsets)
        for (size_t k = 0; k < plan.features.size(); ++k) {
            const double m = plan.outlierMin + (plan.outlierMax - plan.outlierMin) * rng.uniform();
            o[k] = (rng.next() >> 63) ? m : -m;
        }
    return offsets;
}

// The widest row, so that one reserve covers it.
size_t RowRoom(const LotPlan& plan) {
    size_t room = 16 + plan.features.size() * 80;
    for (const Segment& s : plan.segments) {
        size_t w = 0;
        for (const std::string& t : s.text) w = std::max(w, t.size());
        room += w;
    }
    for (int w : plan.valueWidths) room += static_cast<size_t>(w);
    for (const auto& f : plan.failTexts) room += f.first.size() * plan.features.size();
    return room;
}

char* PutSegments(char* out, const LotPlan& plan, int w, int fi, int si) {
    for (const Segment& s : plan.segments) {
        const int i = s.source == Source::Wafer ? w : s.source == Source::Field ? fi : si;
        const std::string& t = s.text[static_cast<size_t>(i)];
        std::memcpy(out, t.data(), t.size());
        out += t.size();
    }
    return out;
}

using Span = std::pair<const char*, const char*>;

// The values of one row: model plus noise (plus the outlier's offset), or the
// failed text; spans[k] is where value k was written. nullptr when a value
// outgrows its fixed column.
char* PutValues(char* out, const LotPlan& plan, const double* model, const double* noise, Odd odd,
                Offsets* offset, const std::string* failText, Span* spans) {
    const size_t nf = plan.features.size();
    for (size_t k = 0; k < nf; ++k) {
        if (k > 0) {
            if (plan.fixedColumns) {
                const long used = out - spans[k - 1].first;
                const int width = plan.valueWidths[k - 1];
                if (used >= width) return nullptr;
                std::memset(out, ' ', static_cast<size_t>(width - used));
                out += width - used;
            } else {
                *out++ = plan.separator;
            }
        }
        spans[k].first = out;
        if (failText) {
            std::memcpy(out, failText->data(), failText->size());
            out += failText->size();
            spans[k].second = out;
            continue;
        }
        double v = model[k] + noise[k];
        if (odd == Odd::Outlier) {
            double& off = (*offset)[k];
            if (plan.positiveValues && v - std::fabs(off) < 0.5 * model[k]) off = std::fabs(off);
            v += off;
        }
        out = PutFixed(out, v, plan.features[k].decimals);
        spans[k].second = out;
    }
    return out;
}

}  // namespace

Status WriteLotFile(Proc& p, const LotPlan& plan, const SpecialRows& special, std::uint64_t seed, OutFile& file,
                    StreamNotes& notes) {
    for (const std::string& h : plan.headerLines) {
        file.put(h);
        file.eol();
    }
    notes.firstDataLine = static_cast<long long>(plan.headerLines.size()) + 1;
    const size_t nf = plan.features.size();
    std::vector<Offsets> offsets = DrawOffsets(plan, special.outliers.size(), seed);
    const size_t room = RowRoom(plan);
    const long long total = plan.rows();
    Rng noiseRng(seed ^ kNoiseStream);
    OddCursor cursor(special);
    double model[kMaxFeatures], noise[kMaxFeatures];
    Span spans[kMaxFeatures];
    long long row = 0;
    for (int w = 0; w < static_cast<int>(plan.wafers.size()); ++w) {
        for (int fi = 0; fi < static_cast<int>(plan.fields.size()); ++fi) {
            for (int si = 0; si < static_cast<int>(plan.sites.size()); ++si) {
                plan.model(w, plan.fields[static_cast<size_t>(fi)], plan.sites[static_cast<size_t>(si)], model);
                // Every row draws its noise, so odd rows leave the others' draws alone.
                for (size_t k = 0; k < nf; ++k) noise[k] = plan.noise * noiseRng.gauss();
                size_t slot = 0;
                const Odd odd = cursor.at(row, slot);
                const auto* fail = odd == Odd::Failed ? &plan.failTexts[slot % plan.failTexts.size()] : nullptr;

                char* out = PutSegments(file.reserve(room), plan, w, fi, si);
                out = PutValues(out, plan, model, noise, odd, odd == Odd::Outlier ? &offsets[slot] : nullptr,
                                fail ? &fail->first : nullptr, spans);
                if (!out)
                    return p.fail("A value is too wide for its column at line " +
                                  std::to_string(notes.firstDataLine + row) + ".");
                file.advance(out);
                file.eol();

                if (odd != Odd::None) {
                    RowNote note;
                    note.line = notes.firstDataLine + row;
                    note.wafer = w;
                    note.field = fi;
                    note.site = si;
                    for (size_t k = 0; k < nf; ++k) {
                        note.model[k] = model[k];
                        note.noise[k] = noise[k];
                        note.text[k].assign(spans[k].first, spans[k].second);
                        if (odd == Odd::Outlier) note.offset[k] = offsets[slot][k];
                    }
                    if (fail) note.expect = fail->second;
                    (odd == Odd::Outlier ? notes.outliers : odd == Odd::Failed ? notes.failed : notes.checks)
                        .push_back(std::move(note));
                }
                ++row;
                if (row % 100 == 0) {
                    if (CheckEscKey()) return p.fail("Simulation cancelled.");
                    SetStatusText("Simulate row " + std::to_string(row) + " of " + std::to_string(total));
                }
            }
        }
    }
    notes.rows = row;
    if (!file.ok()) return p.fail("Cannot write file: " + file.path());
    return StatusOk();
}

}  // namespace zorv::sim
