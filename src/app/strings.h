// The numbered string table of captions and messages (numbers from 1000).
#pragma once

namespace zorv {

// The text of string `id`; "" for a number not in the table.
const char* LoadResString(int id);
// True when the table holds `id`.
bool HasResString(int id);

// Numbers used by code.
enum ResId : int {
    resCloseAllWorkbooks = 1642,
    resNoDataRows = 1668,
    resProductCaption = 1686,
    resNoProcessVariables = 2022,
    resOneFocusValue = 2023,
    resOneDoseValue = 2024,
    resNotEnoughVariation = 2025,
    resToolLibraryChanged = 2074,
    resSaveToolLibrary = 2075,
    resCompositeSurface = 2196,
    resSitesSheetEmpty = 2199,
    resNoSitesSheet = 2200,
    resPWAlgorithmTip = 6053,
    resFocusPolynomial = 6055,
    resDosePolynomial = 6057,
};

}  // namespace zorv
