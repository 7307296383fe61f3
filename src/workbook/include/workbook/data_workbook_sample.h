// A synthetic data workbook with known values: the four tables an importer
// hands to SaveData, for the sample verb, the tests and the benchmarks.
#pragma once

#include <string>

#include "base/datam.h"

namespace zorv {

struct SampleSpec {
    int wafers = 2;
    int fieldsX = 3, fieldsY = 3;  // field grid, centred on index 0
    int sitesX = 2, sitesY = 2;    // site grid in each field
    int values = 3;                // value columns (1..8)
    int dataType = 1;              // 1 overlay, 2 CD SEM ...
    double dieSizeX = 26, dieSizeY = 33;  // millimetres
    double siteStep = 2;                  // millimetres
    int blankEvery = 0;   // every n-th row has its first value blank (0: none)
    int excludedRows = 0;  // rows in the excluded table
    double waferSizeMm = 0;
    std::string dataTable = "SampleLot";
    std::string workbookPath;  // empty: the data table name in the current folder
    std::string families;      // "" none; else names separated by ',' given round-robin to sites
};

struct SampleTables {
    Datam data, excluded, sites, information;
};

// The value j (0-based) of a row, in workbook units.
double SampleValue(int wafer, int dieX, int dieY, int site, int j);
// Die index of field i (0-based) along an axis of n fields.
int SampleDieIndex(int i, int n);
// Site location (mm) of site number s (1-based).
void SampleSiteXY(const SampleSpec& shape, int s, double& x, double& y);
SampleTables MakeSampleTables(const SampleSpec& shape);
// The value headers of the sample columns.
const char* SampleValueName(int j, int dataType);

}  // namespace zorv
