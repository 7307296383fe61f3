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
for f in "$here"/samples/kla_cdsem_* "$here"/samples/delimited_* "$here"/samples/fem_spreadsheet.xlsx; do
  [ -e "$f" ] || continue
  echo
  echo "== zorv-cli import $(basename "$f")"
  cp "$f" "$out/imports/"
  "$cli" import "$out/imports/$(basename "$f")" --json | head -c 400
  echo
done
for kind in fem overlay psfm reticle; do
  echo
  echo "== zorv-cli simulate $kind"
  "$cli" simulate "$kind" --out "$out/sim-$kind" --seed 7
  file=$(grep -o '"file": *"[^"]*"' "$out/sim-$kind/truth.json" | head -1 | cut -d'"' -f4)
  "$cli" import "$out/sim-$kind/$file" | sed -n '1,12p'
done
