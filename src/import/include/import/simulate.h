// Synthetic tool files with a known truth (zorv-cli simulate): a CD-SEM
// focus-exposure matrix, an overlay lot, a PSFM focus matrix, a wafer CD
// lot with its reticle measurement, or a sensor wafer's thermal map. Each run writes the tool file in a format
// of the import table and, beside it, truth.json: what went into the file, so
// that a test can hold a loaded lot against the generator's input.
//
// truth.json, one object (positions in mm, focus in um, dose in mJ/cm2):
//   "generator": "zorv simulate", "kind": "fem" | "overlay" | "psfm" | "reticle"
//       | "thermal",
//   "format": the format row the file is for ("KLA 8xxx CD-SEM", "Delimited
//       text (CSV, TSV)", "KLA Archer overlay" or "OnWafer Thermal Map (*.*)"),
//   "file": the tool file's name, beside truth.json,
//   "reticleFile", "reticleFormat": reticle only, the mask measurement,
//   "seed", "eol": "crlf" | "lf" | "cr",
//   "rows": data lines written (failed ones included), "headerLines": lines
//       before the first data line, "skippedRows" / "excludedRows": failed rows
//       a reader skips (no number) / moves to "Excluded" (a value of 0),
//   "wafers", "fields" (per wafer), "fieldsX", "fieldsY", "sites" (per field),
//   "fieldSize": {"x", "y"}, field pitch,
//   "features": [{"name" (as the workbook names it), "column" (the file's
//       header), "unit" (in the workbook), "fileUnit", "toWorkbook" (factor
//       from file to workbook value), "decimals" (written)}],
//   "model": {"formula": words, "coefficients": [{"name", "value", "unit",
//       "meaning"}], then the kind's own: fem "isofocalDose" and "bestFocus"
//       [{"dose", "focus", "cd"}] (the turning point of CD(F) nearest 0 for
//       each dose of the grid); overlay "terms" [{"name", "dx", "dy"}] (each
//       coefficient's share as an expression); psfm "siteModel" [{"site",
//       "x", "y", "offsetX", "slopeX", "offsetY", "slopeY", "focusOffset"}];
//       reticle "magnification", "maskFeature" (as "features") and "meef"
//       [{"site", "x", "y", "maskCD", "meef"}]; thermal "diameter" (mm) and
//       "times" [{"wafer", "time"}] (s)},
//   "noise": {"sigma", "unit", "distribution": "normal"},
//   "outliers": [{"line", "wafer", "dieX", "dieY", "site", "values": [{"feature",
//       "text", "written", "model", "noise", "offset"}]}],
//   "failed": [{"line", "wafer", "dieX", "dieY", "site", "text", "expect":
//       "skipped" | "excluded"}]: the CD-SEM report writes "0.00" (to
//       "Excluded") or "*****" (skipped); delimited text a blank or "*****",
//   "fieldTableComplete", "fieldTable": [{"wafer", "dieX", "dieY", "centreX",
//       "centreY"[, "focus", "dose"]}], one row per wafer and field (the grid
//       is the same on every wafer; past 20,000 rows only the first wafers),
//   "sitePositions": [{"site", "x", "y"}], the site in the field,
//   "checks": about 20 rows [{"line", "wafer", "dieX", "dieY", "site", "x",
//       "y"[, "focus", "dose"], "values": [{"feature", "text" (exactly as
//       written), "written", "model" (noiseless), "noise" (the draw added)}]}];
//       written = model + noise, rounded to the feature's decimals.
// "line" counts the file's lines from 1.
// A thermal map is one lot whose wafers are the time samples ("t" and the time
// as written, "t5.00"), with one field the size of the wafer (die 0, 0) whose
// sites are the sensors at their wafer positions; an Archer export names its
// wafers by slot number ("1", "2").
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "base/proc.h"

namespace zorv {

enum class LineEnd { CrLf, Lf, Cr };

// What to simulate. Unset values take the kind's defaults.
struct SimulateOptions {
    std::string outDir;  // created when missing
    std::string name;    // base name of the tool file; the kind's name when empty
    // "kla" (fem, reticle), "csv" (all but thermal), "archer" (overlay) or
    // "onwafer" (thermal, its only one); empty: the kind's own.
    std::string format;
    std::optional<int> wafers, fieldsX, fieldsY, sites;
    // About this many data rows: sets the wafers and sites not given (or, with
    // both given, the field grid).
    std::optional<long long> rows;
    std::uint64_t seed = 1;
    std::optional<double> noise;  // sigma of the Gaussian noise, in the feature's file unit
    std::optional<int> outliers, failed;
    LineEnd eol = LineEnd::CrLf;
    // Model coefficients by name, over the kind's defaults (truth.json lists them).
    std::vector<std::pair<std::string, double>> coefficients;
    // The focus (um) and dose (mJ/cm2) ranges of the field grid: the centre and
    // the span from the first column (row) to the last.
    std::optional<double> focusCentre, focusSpan, doseCentre, doseSpan;
    std::string lot = "SIM0001";
};

struct SimulateOutput {
    std::string kind;
    std::string format;       // the format row of `file`
    std::string file;         // the tool file
    std::string reticleFile;  // reticle: the mask measurement
    std::string truth;        // truth.json
    long long rows = 0;       // data lines written
};

// The kinds, in the order of the help text.
const std::vector<std::string>& SimulateKinds();

// Import(Simulate): writes the tool file(s) and truth.json into opts.outDir.
// Nothing is left behind when it fails.
[[nodiscard]] Result<SimulateOutput> Simulate(const std::string& kind, const SimulateOptions& opts);

}  // namespace zorv
