#!/bin/sh
# zorv DMA on a machine without a display: the run needs no window and
# returns; a line whose files are missing fails, leaves its reason in the log
# beside the program and writes no result file.
# Usage: dma_headless_test.sh <zorv> <scratch folder>
set -u
zorv=$1
tmp=$2
fail() {
    echo "FAIL: $*" >&2
    exit 1
}
rm -rf "$tmp"
mkdir -p "$tmp/out" || fail "cannot make $tmp/out"
log="$(dirname "$zorv")/RemoteCall.Log"

# Settings of this test only.
ZORV_SETTINGS_FILE="$tmp/settings.ini" XDG_CONFIG_HOME="$tmp/config" \
    timeout 120 env -u DISPLAY -u WAYLAND_DISPLAY QT_QPA_PLATFORM= \
    "$zorv" DMA -f "$tmp/missing.txt" -t "$tmp/missing.xls" -o "$tmp/out" >"$tmp/stdout" 2>"$tmp/stderr"
rc=$?
[ "$rc" -ne 124 ] || fail "zorv did not return"
[ "$rc" -ne 0 ] || fail "exit status 0 for missing files"
[ -z "$(ls -A "$tmp/out")" ] || fail "result files written: $(ls -A "$tmp/out")"
[ -f "$log" ] || fail "no log at $log"
grep -qF "File file '$tmp/missing.txt' does not exist." "$log" || fail "the parse failure is not in $log"
grep -qF "Automation analysis complete." "$log" || fail "the closing notice is not in $log"
echo "exit status $rc"
