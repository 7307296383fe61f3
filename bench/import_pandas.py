"""Reads a KLA 8xxx CD-SEM report with pandas.read_csv, the comparison of
bench_import. The lines before the data header (title, header pair) are
skipped; the table's columns are separated by blanks. A failed measurement
("*****") reads as NaN, a value of 0 stays.
Usage: import_pandas.py FILE
Prints: rows seconds MB/s mean-of-first-measured-column peak-RSS-MB"""
import os
import resource
import sys
import time

import pandas as pd

path = sys.argv[1]
t0 = time.perf_counter()
# The data header is the first line holding X_SITE_LOC or FEATURE, as the
# reader finds it.
skip = 0
with open(path, "rb") as f:
    for line in f:
        if b"X_SITE_LOC" in line or b"FEATURE" in line:
            break
        skip += 1
table = pd.read_csv(path, skiprows=skip, sep=r"\s+", engine="c", na_values=["*****"])
first = next(c for c in table.columns if c.upper() in ("MEAS", "MEAS_1", "MEASURE", "MEASURE_1"))
values = pd.to_numeric(table[first], errors="coerce")
seconds = time.perf_counter() - t0
mb = os.path.getsize(path) / 1048576.0
peak = resource.getrusage(resource.RUSAGE_SELF).ru_maxrss / 1024.0
print(len(table), seconds, mb / seconds, values.mean(), peak)
