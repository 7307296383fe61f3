// zorv-cli simulate: writes a synthetic tool file with a known truth (the
// core's Simulate) and prints where it went.
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string>
#include <vector>

#include "import/simulate.h"
#include "json.h"
#include "verbs.h"

namespace zorv::cli {

namespace {

// Option parsers: false, with a message naming the option, for text that is
// not a number of the kind asked.
bool LongOption(const Args& args, const std::string& name, long long lo, long long hi,
                std::optional<long long>& out) {
    const std::string v = OptionValue(args, name);
    if (v.empty()) return true;
    char* end = nullptr;
    errno = 0;
    const long long n = std::strtoll(v.c_str(), &end, 10);
    if (end == v.c_str() || *end != '\0' || errno == ERANGE || n < lo || n > hi) {
        std::fprintf(stderr, "simulate: %s must be a whole number from %lld to %lld, not '%s'\n", name.c_str(), lo,
                     hi, v.c_str());
        return false;
    }
    out = n;
    return true;
}

bool IntOption(const Args& args, const std::string& name, int lo, int hi, std::optional<int>& out) {
    std::optional<long long> n;
    if (!LongOption(args, name, lo, hi, n)) return false;
    if (n) out = static_cast<int>(*n);
    return true;
}

bool DoubleText(const std::string& v, double& out) {
    char* end = nullptr;
    out = std::strtod(v.c_str(), &end);
    return end != v.c_str() && *end == '\0' && std::isfinite(out);
}

bool DoubleOption(const Args& args, const std::string& name, std::optional<double>& out) {
    const std::string v = OptionValue(args, name);
    if (v.empty()) return true;
    double d = 0;
    if (!DoubleText(v, d)) {
        std::fprintf(stderr, "simulate: %s must be a number, not '%s'\n", name.c_str(), v.c_str());
        return false;
    }
    out = d;
    return true;
}

// "c1=150,c4=900"
bool Coefficients(const std::string& text, std::vector<std::pair<std::string, double>>& out) {
    size_t i = 0;
    while (i < text.size()) {
        size_t comma = text.find(',', i);
        if (comma == std::string::npos) comma = text.size();
        const std::string item = text.substr(i, comma - i);
        const size_t eq = item.find('=');
        double v = 0;
        if (eq == std::string::npos || eq == 0 || !DoubleText(item.substr(eq + 1), v)) {
            std::fprintf(stderr, "simulate: --coef takes NAME=VALUE[,NAME=VALUE...], not '%s'\n", item.c_str());
            return false;
        }
        out.emplace_back(item.substr(0, eq), v);
        i = comma + 1;
    }
    return true;
}

}  // namespace

const char kSimulateHelp[] =
    "Usage: zorv-cli simulate KIND --out DIR [options] [--json]\n\n"
    "Writes a synthetic tool file with a known truth into DIR, and DIR/truth.json\n"
    "with the model, its coefficients, the noise, the outlier and failed rows, the\n"
    "field table, the site positions and about 20 check points (written value,\n"
    "noiseless model value and the noise drawn).\n\n"
    "Kinds:\n"
    "  fem      CD-SEM focus-exposure matrix, KLA 8xxx CD-SEM report (or --format csv);\n"
    "           CD = c1 + c2*D + c3*F + c4*F^2 + c5*D*F + c6*F^3 + c7*D*F^2,\n"
    "           focus stepping along the field columns, dose along the rows\n"
    "  overlay  overlay lot (CSV, or --format archer: KLA Archer export) from wafer\n"
    "           terms (offset, scale, rotation, bows, trifoil) and field terms\n"
    "           (offset, magnification, rotation, curvature)\n"
    "  psfm     PSFM focus matrix (CSV): image shift X and Y, a polynomial of the focus\n"
    "           each site sees (field focus + tilt and curvature of best focus)\n"
    "  reticle  wafer CD lot (KLA or CSV) and its mask measurement NAME_mask.csv,\n"
    "           CD = NominalCD + MEEF(x,y) * (MaskCD/4 - NominalMaskCD/4)\n"
    "  thermal  OnWafer thermal map of a sensor wafer settling to its plate: one\n"
    "           wafer per time sample (--wafers), sensors (--sites) on rings,\n"
    "           T = Setpoint + (Start - Setpoint)*e + (1 - e)*(radial and linear\n"
    "           profile), e = exp(-t/Tau); --noise in C\n\n"
    "Options:\n"
    "  --out DIR              folder to write (created when missing)\n"
    "  --format FMT           file format: kla|csv (fem, reticle; default kla),\n"
    "                         csv|archer (overlay; default csv), onwafer (thermal)\n"
    "  --wafers N             wafers\n"
    "  --fields N             an N x N field grid; --fields-x N, --fields-y N apart\n"
    "  --sites N              sites per field\n"
    "  --rows N               about N data rows: sets the wafers and sites not given\n"
    "  --seed N               random seed (default 1); a seed gives the same bytes\n"
    "  --noise NM             sigma of the Gaussian noise, nm (thermal: C)\n"
    "  --outliers N           rows with a value far off\n"
    "  --failed N             failed measurements (0, or a text that is no number)\n"
    "  --eol crlf|lf|cr       line ends (default crlf)\n"
    "  --name BASE            base name of the tool file (default the kind)\n"
    "  --lot NAME             lot name in the file's header\n"
    "  --coef NAME=V[,...]    model coefficients over the defaults (see truth.json)\n"
    "  --focus-centre UM, --focus-span UM, --dose-centre MJ, --dose-span MJ\n"
    "                         focus and dose of the field grid, first to last column/row\n\n"
    "Prints the tool file's path (with --json: {\"file\", \"truth\", \"rows\"} and, for\n"
    "reticle, \"reticleFile\"). A run that fails prints the message on stderr and exits\n"
    "with 1 (with --json an error object on stdout); bad arguments exit with 2.\n";

int RunSimulate(const Args& args) {
    const std::vector<std::string> valueOptions = {
        "--out", "--format", "--wafers", "--fields", "--fields-x", "--fields-y", "--sites", "--rows",
        "--seed", "--noise", "--outliers", "--failed", "--eol", "--name", "--lot", "--coef",
        "--focus-centre", "--focus-span", "--dose-centre", "--dose-span"};
    const Args pos = Positional(args, valueOptions);
    if (pos.size() != 1) {
        std::fprintf(stderr, "Usage: zorv-cli simulate KIND --out DIR [options]\n");
        return kExitUsage;
    }
    SimulateOptions o;
    o.outDir = OptionValue(args, "--out");
    if (o.outDir.empty()) {
        std::fprintf(stderr, "simulate: --out DIR is required\n");
        return kExitUsage;
    }
    o.format = OptionValue(args, "--format");
    o.name = OptionValue(args, "--name");
    if (const std::string lot = OptionValue(args, "--lot"); !lot.empty()) o.lot = lot;
    std::optional<int> fields;
    std::optional<long long> rows, seed;
    if (!IntOption(args, "--wafers", 1, 9999, o.wafers) || !IntOption(args, "--fields", 1, 999, fields) ||
        !IntOption(args, "--fields-x", 1, 999, o.fieldsX) || !IntOption(args, "--fields-y", 1, 999, o.fieldsY) ||
        !IntOption(args, "--sites", 1, 100000, o.sites) || !LongOption(args, "--rows", 1, 100000000, rows) ||
        !LongOption(args, "--seed", 0, 0x7fffffffffffffffLL, seed) ||
        !IntOption(args, "--outliers", 0, 1000000, o.outliers) ||
        !IntOption(args, "--failed", 0, 1000000, o.failed) ||
        !DoubleOption(args, "--noise", o.noise) || !DoubleOption(args, "--focus-centre", o.focusCentre) ||
        !DoubleOption(args, "--focus-span", o.focusSpan) || !DoubleOption(args, "--dose-centre", o.doseCentre) ||
        !DoubleOption(args, "--dose-span", o.doseSpan))
        return kExitUsage;
    if (fields) {
        if (!o.fieldsX) o.fieldsX = fields;
        if (!o.fieldsY) o.fieldsY = fields;
    }
    o.rows = rows;
    if (seed) o.seed = static_cast<std::uint64_t>(*seed);
    const std::string eol = OptionValue(args, "--eol");
    if (eol.empty() || eol == "crlf") {
        o.eol = LineEnd::CrLf;
    } else if (eol == "lf") {
        o.eol = LineEnd::Lf;
    } else if (eol == "cr") {
        o.eol = LineEnd::Cr;
    } else {
        std::fprintf(stderr, "simulate: --eol must be crlf, lf or cr, not '%s'\n", eol.c_str());
        return kExitUsage;
    }
    if (const std::string coef = OptionValue(args, "--coef"); !coef.empty() && !Coefficients(coef, o.coefficients))
        return kExitUsage;

    const bool json = HasFlag(args, "--json");
    Result<SimulateOutput> r = Simulate(pos[0], o);
    if (!r) return ShowFailure(r.failure(), json);
    if (json) {
        Json j;
        j.beginObject().field("file", r->file).field("truth", r->truth).field("rows", r->rows);
        if (!r->reticleFile.empty()) j.field("reticleFile", r->reticleFile);
        j.field("kind", r->kind).field("format", r->format).endObject();
        std::printf("%s\n", j.str().c_str());
    } else {
        std::printf("%s\n", r->file.c_str());
    }
    return kExitOk;
}

}  // namespace zorv::cli
