#!/usr/bin/env bash
# Headless demo on the bundled sample data: called by ./run with the path of
# zorv-cli and the build folder.
set -euo pipefail
cli=$1
build=$2
here=$(cd "$(dirname "$0")" && pwd)
out="$build/demo"
mkdir -p "$out"

for wb in "$here"/samples/*.xlsx; do
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
