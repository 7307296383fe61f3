"""Reads the cells of one sheet of an .xlsx with openpyxl's read-only mode,
the comparison of bench_xlsx and bench_load_compare.
Usage: xlsx_openpyxl.py FILE [MAX_ROWS [SHEET]]   (MAX_ROWS 0: every row; no SHEET: the largest)
Prints: cells seconds"""
import sys
import time

import openpyxl

path = sys.argv[1]
limit = int(sys.argv[2]) if len(sys.argv) > 2 else 0
t0 = time.perf_counter()
wb = openpyxl.load_workbook(path, read_only=True)
if len(sys.argv) > 3:
    ws = wb[sys.argv[3]]
else:
    # the data sheet: the largest by its declared dimension
    ws = max(wb.worksheets, key=lambda s: (s.max_row or 0) * (s.max_column or 0))
cells = 0
for i, row in enumerate(ws.iter_rows(values_only=True)):
    if limit and i >= limit:
        break
    cells += len(row)
wb.close()
print(cells, time.perf_counter() - t0)
