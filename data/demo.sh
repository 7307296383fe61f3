#!/usr/bin/env bash
# Headless demo on the bundled sample data: called by ./run with the path of
# zorv-cli and the build folder.
set -euo pipefail
cli=$1
build=$2
here=$(cd "$(dirname "$0")" && pwd)
out="$build/demo"
mkdir -p "$out"

for wb in "$here"/samples/Sample*.xlsx; do
  echo
  echo "== zorv-cli info $(basename "$wb")"
  "$cli" info "$wb"
done

# A fresh synthetic lot, written as a data workbook and read back.
echo
echo "== zorv-cli sample-workbook $out/Synthetic.xlsx"
"$cli" sample-workbook "$out/Synthetic.xlsx"
"$cli" info "$out/Synthetic.xlsx" --json | head -c 600
echo

# Raw tool files: the import formats, each sample through its reader, and
# synthetic files with a known truth.
echo
echo "== zorv-cli formats"
"$cli" formats
mkdir -p "$out/imports"
# One sample per reader (and variants); each is detected from its words, but
# for a Questar file without its header, which names no format.
for f in "$here"/samples/*; do
  name=$(basename "$f")
  case "$name" in Sample*.xlsx) continue ;; esac
  format=()
  case "$name" in biorad_res_noheader.txt) format=(--format "BioRad Questar Overlay") ;; esac
  cp "$f" "$out/imports/"
  printf '== zorv-cli import %-30s ' "$name"
  "$cli" import "$out/imports/$name" "${format[@]}" 2>/dev/null | sed -n 's/^Format: *//p; s/^Counts: *//p' | paste -sd '|' -
done
for kind in fem overlay psfm reticle thermal; do
  echo
  echo "== zorv-cli simulate $kind"
  "$cli" simulate "$kind" --out "$out/sim-$kind" --seed 7
  file=$(grep -o '"file": *"[^"]*"' "$out/sim-$kind/truth.json" | head -1 | cut -d'"' -f4)
  "$cli" import "$out/sim-$kind/$file" | sed -n '1,12p'
done

# Statistics and culls: the summary, the raw statistics and the precision
# table of a CD-SEM lot, then a cull by range and sigma on every feature, each written
# back as a result sheet of a copy of the sample.
mkdir -p "$out/stats"
cp "$here/samples/SampleCD.xlsx" "$out/stats/SampleCD.xlsx"
echo
echo "== zorv-cli stats SampleCD.xlsx"
"$cli" stats "$out/stats/SampleCD.xlsx" --save
echo
echo "== zorv-cli stats SampleCD.xlsx --table precision"
"$cli" stats "$out/stats/SampleCD.xlsx" --table precision --save
echo
echo "== zorv-cli stats SampleCD.xlsx --table raw"
"$cli" stats "$out/stats/SampleCD.xlsx" --table raw
echo
echo "== zorv-cli cull SampleCD.xlsx --range 0.08 --sigma 1.5 --all-features --save"
"$cli" cull "$out/stats/SampleCD.xlsx" --range 0.08 --sigma 1.5 --all-features --save | sed -n '1,12p'
# The simulated focus-exposure lot, by family.
fem=$(ls "$out"/sim-fem/*.xlsx 2>/dev/null | head -1 || true)
if [ -n "$fem" ]; then
  echo
  echo "== zorv-cli stats $(basename "$fem") --table precision"
  "$cli" stats "$fem" --table precision
fi

# Wafer and field models of the simulated overlay lot, from the shipped
# library, points off by more than 10 nm culled between passes.
ov="$out/sim-overlay/overlay.xlsx"
if [ -f "$ov" ]; then
  echo
  echo "== zorv-cli model --list"
  "$cli" model --list
  echo
  echo "== zorv-cli model overlay.xlsx --wafer-set Tilt+Bow --field-set \"Field Piston+Tilt+Curv\""
  "$cli" model "$ov" --wafer-set Tilt+Bow --field-set "Field Piston+Tilt+Curv" --range 10 | sed -n '1,14p'
fi

# Charts of the CD sample, drawn without a display: an XY chart with a
# statistics box as PNG, SVG and PDF, and the distribution with its box plots.
mkdir -p "$out/charts"
for ext in png svg pdf; do
  echo "== zorv-cli plot SampleCD.xlsx --out charts/measure.$ext"
  "$cli" plot "$here/samples/SampleCD.xlsx" --x Test --y Measure,Height --stats --out "$out/charts/measure.$ext" 2>/dev/null
done
echo "== zorv-cli plot SampleCD.xlsx --kind boxplot"
"$cli" plot "$here/samples/SampleCD.xlsx" --kind boxplot --y Measure --group Wafer --out "$out/charts/measure-histogram.png" 2>/dev/null
echo "== zorv-cli plot SampleCD.xlsx --x Test --y Measure --percentiles"
"$cli" plot "$here/samples/SampleCD.xlsx" --x Wafer --y Measure --percentiles --out "$out/charts/measure-boxes.png" 2>/dev/null

# Maps of the lots: the simulated overlay as arrows, the CD sample coloured by
# value and as a contour, the thermal map as a contour and a 3D surface, and
# the radial chart of the whole CD wafer with its zones and fits.
if [ -f "$ov" ]; then
  echo "== zorv-cli plot overlay.xlsx --kind wafer-vector"
  "$cli" plot "$ov" --kind wafer-vector --size 1000x1000 --out "$out/charts/overlay-vectors.png"
  "$cli" plot "$ov" --kind field-vector --out "$out/charts/overlay-field.pdf"
fi
for kind in wafer-map wafer-contour field-contour; do
  echo "== zorv-cli plot SampleCD.xlsx --kind $kind"
  "$cli" plot "$here/samples/SampleCD.xlsx" --kind $kind --out "$out/charts/cd-$kind.png"
done
thermal=$(ls "$out"/sim-thermal/*.xlsx 2>/dev/null | head -1 || true)
if [ -n "$thermal" ]; then
  echo "== zorv-cli plot $(basename "$thermal") --kind wafer-contour, surface3d"
  "$cli" plot "$thermal" --kind wafer-contour --out "$out/charts/thermal-contour.png"
  "$cli" plot "$thermal" --kind surface3d --out "$out/charts/thermal-3d.svg"
fi
echo "== zorv-cli plot SampleCD.xlsx --kind radial --rect -150,-150,150,150 --save"
"$cli" plot "$out/stats/SampleCD.xlsx" --kind radial --rect -150,-150,150,150 --save --out "$out/charts/cd-radial.png"

# The process window of the simulated focus-exposure lot: isofocal doses, the
# Bossung curves, and the window with its rectangle, ellipse and bootstrap
# intervals, written back as result sheets of a copy.
if [ -n "$fem" ]; then
  mkdir -p "$out/pw"
  cp "$fem" "$out/pw/"
  pwb="$out/pw/$(basename "$fem")"
  echo
  echo "== zorv-cli pw $(basename "$fem") --analysis isofocal"
  "$cli" pw "$pwb" --analysis isofocal --var MEAS_1:0.09 | tail -8
  echo "== zorv-cli pw --analysis focus --chart"
  "$cli" pw "$pwb" --analysis focus --var MEAS_1:0.09:0.099:0.081 --chart "$out/charts/pw-bossung.png" > /dev/null
  echo "$out/charts/pw-bossung.png"
  echo "== zorv-cli pw --analysis window --ci 90 --save --chart"
  "$cli" pw "$pwb" --analysis window --var MEAS_1:0.09:0.099:0.081 --ci 90 --resamples 100 --save \
    --chart "$out/charts/pw-window.png" | tail -12
fi

# Focus calibration: the simulated PSFM matrix calibrated into a template of a
# demo library (a chart per site, the dose views), a second simulated lot
# exposed at +0.1 um converted back to focus by it, and the field tilt and
# curvature of best focus.
psfm="$out/sim-psfm/psfm.xlsx"
if [ -f "$psfm" ]; then
  lib="$out/templates"
  echo
  echo "== zorv-cli calibrate psfm.xlsx --order 3 --template DemoPSFM --charts --dose-views --save"
  "$cli" calibrate "$psfm" --order 3 --template DemoPSFM --folder "$lib" --save \
    --charts "$out/charts/calibration" --dose-views "$out/charts/calibration" | sed -n '1,6p'
  echo "== zorv-cli templates list"
  "$cli" templates list --folder "$lib" 2>/dev/null || true
  "$cli" simulate psfm --out "$out/sim-psfm-lot" --seed 7 --focus-centre 0.1 --focus-span 0 --fields-x 4 > /dev/null
  "$cli" import "$out/sim-psfm-lot/psfm.csv" > /dev/null 2>&1
  echo "== zorv-cli convert (a lot at +0.1 um) --template DemoPSFM"
  "$cli" convert "$out/sim-psfm-lot/psfm.xlsx" --template DemoPSFM --folder "$lib" --save | sed -n '1,4p'
  echo "== zorv-cli astig psfm.xlsx"
  "$cli" astig "$psfm" --range 0.01 | sed -n '1,4p'
  echo "== zorv-cli bestfocus psfm.xlsx --order 3"
  "$cli" bestfocus "$psfm" --order 3 | sed -n '1,12p'
fi

# Mask error factors of the simulated reticle pair: the wafer lot (KLA report,
# um) against its 4x mask measurement (nm), written back as sheets and as a
# lot of its own.
ret="$out/sim-reticle/reticle.xlsx"
if [ -f "$ret" ]; then
  "$cli" import "$out/sim-reticle/reticle_mask.csv" > /dev/null 2>&1
  echo
  echo "== zorv-cli meef reticle.xlsx reticle_mask.xlsx --mag 4 --save --as-lot"
  "$cli" meef "$ret" "$out/sim-reticle/reticle_mask.xlsx" --feature MEAS_1 --reticle-feature Mask_CD --mag 4 \
    --save --as-lot "$out/sim-reticle/meef_lot.xlsx" | tail -4
fi

# The daily monitor as a factory host runs it: each shipped template (copied,
# as every run adds its trend rows) on simulated data of its kind, a second
# day's run of the overlay monitor, its trend chart, and a batch of five files.
mon="$out/monitor"
rm -rf "$mon"
mkdir -p "$mon/templates" "$mon/data" "$mon/results"
cp "$here"/templates/* "$mon/templates/"
"$cli" simulate overlay --out "$mon/data" --seed 8 > /dev/null
"$cli" simulate psfm --out "$mon/data" --seed 8 > /dev/null
"$cli" simulate fem --out "$mon/data" --seed 8 > /dev/null
for run in "OverlayMonitor overlay.csv" "OverlayMonitor overlay.csv" "PSFMMonitor psfm.csv" \
           "MatrixMonitor psfm.csv" "FEMMonitor fem.txt"; do
  set -- $run
  echo
  echo "== zorv-cli monitor -f $2 -t $1.xlt -o results -x results -w results"
  "$cli" monitor -f "$mon/data/$2" -t "$mon/templates/$1.xlt" -o "$mon/results" -x "$mon/results" \
    -w "$mon/results" --charts "$out/charts/monitor" | sed -n '1,4p;/Mean /p;/Best Focus/p'
done
echo "== $(basename "$mon/results/overlay_ZorvDMA.csv"), its results"
sed -n '/\[Results\]/,/\[END\]/p' "$mon/results/overlay_ZorvDMA.csv" | head -12
echo "== trend charts: $(ls "$out/charts/monitor" | wc -l) in $out/charts/monitor"
echo "== zorv-cli monitor --trend OverlayMonitor.xlt --feature X_reg --out trend-overlay.png"
"$cli" monitor --trend "$mon/templates/OverlayMonitor.xlt" --feature X_reg --out "$out/charts/trend-overlay.png" || true
for i in 1 2 3 4 5; do
  "$cli" simulate overlay --out "$mon/batch" --seed $((30 + i)) --name "day$i" > /dev/null
done
"$cli" monitor --batch-list "$mon/templates/OverlayMonitor.xlt" --sheet Nightly "$mon"/batch/day*.csv
echo "== zorv-cli monitor --batch OverlayMonitor.xlt --sheet Nightly"
"$cli" monitor --batch "$mon/templates/OverlayMonitor.xlt" --sheet Nightly
