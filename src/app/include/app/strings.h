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
    resMenuFile = 1000,
    resMenuOpen = 1001,
    resMenuSave = 1002,
    resMenuSaveAs = 1003,
    resMenuClose = 1004,
    resMenuExit = 1005,
    resMenuRecentFiles = 1008,
    resMenuEdit = 1010,
    resMenuView = 1020,
    resMenuTools = 1030,
    resMenuOptions = 1031,
    resMenuResetPreferences = 1033,
    resMenuWindow = 1040,
    resMenuHelp = 1050,
    resMenuHelpContents = 1051,
    resMenuAbout = 1053,
    resReady = 1071,
    resCompanyName = 1687,
    resVersionCaption = 1688,
    resUnloadQuestion = 1696,
    resShutdownTitle = 1697,
    resPWAlgorithm = 6052,
    resPWAlgorithmTip = 6053,
    resFocusPolynomial = 6055,
    resDosePolynomial = 6057,
};

}  // namespace zorv
