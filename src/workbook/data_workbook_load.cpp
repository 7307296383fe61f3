// Import(GetExcelWBLot): builds a cLot from a data workbook.
#include <algorithm>
#include <cmath>
#include <filesystem>
#include <string>
#include <unordered_map>
#include <vector>

#include "base/identity.h"
#include "base/proc.h"
#include "base/regional.h"
#include "base/report.h"
#include "app/settings.h"
#include "app/strings.h"
#include "lot/lot.h"
#include "workbook/data_workbook.h"
#include "data_workbook_util.h"

namespace zorv {

using namespace dwb;
namespace fs = std::filesystem;

namespace {

constexpr float kMiss = -999.9f;

bool Exists(const std::string& p) {
    std::error_code ec;
    return fs::is_regular_file(p, ec);
}

// A cell read as a number the way the row loop needs it: numbers as they are,
// text through the numeric test. False for blanks and other text.
inline bool NumberOf(const Value& v, double& out) {
    switch (v.type()) {
        case VType::Double: out = v.toDouble(); return true;
        case VType::Integer:
        case VType::Long:
        case VType::Single:
        case VType::Boolean:
        case VType::Date: out = v.toDouble(); return true;
        case VType::String:
            if (!IsNumericValue(v)) return false;
            if (!ParseNumber(v.str(), out)) {
                std::string s = Replace(v.str(), "%", "");
                return ParseNumber(s, out);
            }
            return true;
        default: return false;
    }
}

// Length at least 1, without formatting numbers (which are never blank).
inline bool NonBlank(const Value& v) {
    if (v.isString()) return !v.str().empty();
    return !(v.isEmpty() || v.isNull());
}

std::string DateText(double serial) {
    CivilTime t = CivilFromSerial(serial);
    char buf[32];
    std::snprintf(buf, sizeof buf, "%04d-%02d-%02d", t.year, t.month, t.day);
    return buf;
}
std::string TimeText(double serial) {
    CivilTime t = CivilFromSerial(serial);
    char buf[32];
    std::snprintf(buf, sizeof buf, "%02d:%02d:%02d", t.hour, t.minute, t.second);
    return buf;
}

// The value of a key of the information table (key column 1, value 2),
// case-insensitive; empty when missing.
Value InfoByKey(const Datam& info, std::string_view key) {
    if (!info.isArray()) return Value();
    for (int r = info.rowLb(); r <= info.rowUb(); ++r)
        if (CellIs(info(r, info.colLb()), key)) return info.get(r, info.colLb() + 1);
    return Value();
}

double Num(const Value& v, double def = 0) {
    double d;
    return NumberOf(v, d) ? d : def;
}

void CalcSiteStep(cLot& lot) {
    std::vector<float> xs, ys;
    for (cWafer* w : lot.Wafers()) {
        for (cField* f : w->Fields())
            for (cSite* s : f->sites()) {
                xs.push_back(s->LocationX);
                ys.push_back(s->LocationY);
            }
        for (cSite* s : w->SitesWafer()) {
            xs.push_back(s->LocationX);
            ys.push_back(s->LocationY);
        }
        break;  // the sites of one wafer describe the grid
    }
    auto step = [](std::vector<float>& v) {
        std::sort(v.begin(), v.end());
        float best = 0;
        for (size_t i = 1; i < v.size(); ++i) {
            float d = v[i] - v[i - 1];
            if (d > 0.5f && (best == 0 || d < best)) best = d;
        }
        return best;
    };
    lot.SiteStepX = step(xs);
    lot.SiteStepy = step(ys);
}

float SnapFirst(float est) {
    if (est > 200000) return 300000;
    if (est > 100000) return 200000;
    if (est > 75000) return 100000;
    if (est > 50000) return 75000;
    return 200000;
}
float SnapSecond(float est) {
    if (est < 60000) return 50000;
    if (est < 77000) return 75000;
    if (est < 130000) return 100000;
    if (est < 220000) return 200000;
    if (est < 320000) return 300000;
    if (est < 370000) return 350000;
    if (est < 420000) return 400000;
    return 200000;
}

void ApplyLayoutValues(cLot& lot, const Datam& values) {
    if (!values.isArray() || values.rowUb() < 1) return;
    const int c0 = values.colLb();
    for (cWafer* w : lot.Wafers()) {
        for (int r = values.rowLb() + 1; r <= values.rowUb(); ++r) {
            std::string wk = CellText(values(r, c0));
            if (!wk.empty() && !IEquals(wk, w->KeyName)) continue;
            std::string var = CellText(values.get(r, c0 + 1));
            if (var.empty()) continue;
            cLayout* lay = nullptr;
            for (cLayout& l : w->Layouts)
                if (IEquals(l.VariableName, var)) lay = &l;
            if (!lay) {
                w->Layouts.push_back(cLayout{});
                lay = &w->Layouts.back();
                lay->VariableName = var;
            }
            for (int c = c0 + 2; c <= values.colUb(); ++c) {
                std::string h = Upper(CellText(values(values.rowLb(), c)));
                const Value& v = values(r, c);
                if (h == "DIEXO") lay->DieXo = static_cast<float>(Num(v));
                else if (h == "DIEYO") lay->DieYo = static_cast<float>(Num(v));
                else if (h == "INITIALVALUE") lay->InitialValue = static_cast<float>(Num(v));
                else if (h == "STEP") lay->Step = static_cast<float>(Num(v));
                else if (h == "MEANDER") lay->Meander = CellText(v);
                else if (h == "SCAN1") lay->Scan1 = CellText(v);
                else if (h == "SCAN2") lay->Scan2 = CellText(v);
                else if (h == "CONTROLINDEX") lay->ControlIndex = static_cast<int>(Num(v));
            }
        }
        if (lot.DataSource() == 5) break;
    }
}

}  // namespace

int GetExcelWBLot(const std::string& pathIn, const std::string& sheetNameIn, std::shared_ptr<cLot>& lot,
                  WBLotTables* tables, bool quiet, bool splitByField) {
    Proc p("Import(GetExcelWBLot): ");
    BusyPointer busy;
    InstallDataWorkbookHooks();
    WBLotTables local;
    WBLotTables& T = tables ? *tables : local;
    T = WBLotTables{};
    bool openedHere = false;
    WorkbookPtr wb;
    auto closeApps = [&] {
        if (openedHere && wb) {
            SetStatusText("Close Apps...");
            Workbooks::Close(wb);
            SetStatusText("XL Apps Closed");
        }
    };

    // 1. The file, with the usual extensions tried.
    p.chk = 1;
    std::string path = pathIn;
    if (!Exists(path)) {
        for (const char* ext : {".xlsx", ".XLS", ".xls", ".XLT"})
            if (Exists(pathIn + ext)) {
                path = pathIn + ext;
                break;
            }
    }
    if (!Exists(path) && !Workbooks::Find(path)) {
        p.msg = "Cannot find file: " + pathIn;
        return -1;
    }
    // 2.
    p.chk = 2;
    std::string folder = FolderOf(path);
    SaveSetting(ApplicationTitle(), "Options", "SourceDirectory", folder);
    // 3.
    p.chk = 3;
    std::string baseName = BaseOf(path);
    std::string cleanBase = FixSheetName(baseName);
    std::string wanted = FixSheetName(sheetNameIn.empty() ? baseName : sheetNameIn);
    SetStatusText("Get " + baseName + " data...");

    // 4. Open; find the data sheet.
    p.chk = 4;
    openedHere = !Workbooks::Find(path);
    Worksheet* ws = nullptr;
    if (OpenExcelWorksheet(path, wb, &ws, false, false) < 1 || !wb) {
        p.quiet();
        wb.reset();
        return -1;
    }
    if (!ws || !IEquals(ws->name(), wanted)) ws = GetDataSheet(wb.get(), wanted, quiet);
    if (!ws) {
        closeApps();
        p.quiet();
        return -1;
    }
    // 5. The workbook becomes the active one.
    p.chk = 5;
    wb->activate(ws);
    SetStatusText(ApplicationTitle() + ": Configuring data ...");

    // 6. The data.
    p.chk = 6;
    // The sheet is read in blocks of rows (one range transfer each) so that
    // the whole table never stands in memory beside the tree.
    // A sheet whose part cannot be read says why, rather than reading as empty.
    if (Status ls = ws->load(); !ls) {
        p.msg = ls.failure().text;
        closeApps();
        return -1;
    }
    if (Worksheet* sitesSheet = wb->sheet("Sites")) {
        if (Status ls = sitesSheet->load(); !ls) {
            p.msg = ls.failure().text;
            closeApps();
            return -1;
        }
    }
    const Area area = DataSheetArea(ws, quiet);
    if (area.empty()) {
        p.msg = std::string(LoadResString(resNoDataRows)) + " (" + wb->name() + ")";
        closeApps();
        return -1;
    }
    SetStatusText(VersionLine() + ": Data Uploaded");
    // 7. Sites and units.
    p.chk = 7;
    int siteStatus = 0;
    T.sites = GetWorksheetSites(wb.get(), 1.0, T.units, &siteStatus);
    if (siteStatus < 1) {
        p.quiet();  // GetWorksheetSites said why
        closeApps();
        return -1;
    }
    const Datam& sites = T.sites;
    // 8. Families.
    p.chk = 8;
    int famCol = -1;
    for (int c = sites.colLb(); c <= sites.colUb(); ++c)
        if (Upper(Trim(CellText(sites(0, c)))) == "FAMILY") famCol = c;
    Datam families(0, 3, 0, 0);
    families(0, 0) = "Enum";
    families(0, 1) = "FamilyName";
    families(0, 2) = "Count";
    families(0, 3) = "Selected";
    if (famCol < 0) {
        families.redimPreserve(1, 3);
        families(1, 0) = 1;
        families(1, 1) = "IsoLine";
        families(1, 2) = 1;
        families(1, 3) = true;
    }
    // 9. Information.
    p.chk = 9;
    T.information = GetWorksheetInspection(wb.get());
    const Datam& info = T.information;
    std::string notchText = CellText(InfoByKey(info, "Flat Location"));
    double givenMm = 0;
    {
        double d;
        Value ws_ = InfoByKey(info, "WaferSize");
        if (NumberOf(ws_, d)) givenMm = d;
    }

    // 10. A new lot.
    p.chk = 10;
    if (lot) lot->Kill();
    lot = cLot::create();
    cLot& L = *lot;
    cWafer* curWafer = nullptr;
    cField* curField = nullptr;
    cSite* curSite = nullptr;

    // 11.
    p.chk = 11;
    {
        std::string n = Lower(Trim(notchText));
        L.Notch = n == "left" ? 3.14159265f : n == "right" ? 0.0f : n == "up" ? 1.5707963f : -1.5707963f;
    }
    {
        std::string fc = Upper(GetSetting(ApplicationTitle(), "Options", "FocusCorrections", "True"));
        L.FocusReportCorrections = !(fc == "FALSE" || fc == "0");
    }
    if (givenMm > 0) L.WaferSize = static_cast<float>(givenMm * 1000);

    // 12. The keys by position, "Data Type" to "strReticle".
    p.chk = 12;
    std::vector<Value> row(kInformationKeyCount + 1);
    {
        int r0 = -1, c0 = -1;
        if (info.isArray()) FindFirstRow(info, r0, c0, "Data Type", kDefaultBound, kDefaultBound,
                                         kDefaultBound, kDefaultBound, true);
        if (r0 >= 0)
            for (int i = 1; i <= infoReticle; ++i) row[i] = info.get(r0 + i - 1, c0 + 1);
    }
    const double today = SerialToday(), now = SerialNow();
    double dMeasured = today, tMeasured = now, dProcess;
    {
        double s;
        if (row[infoDate].textLength() > 0 && DateExtract(row[infoDate], s) && s != -1) dMeasured = s;
        if (row[infoMeasureTime].textLength() > 0 && DateExtract(row[infoMeasureTime], s) && s != -1)
            tMeasured = s;
        dProcess = dMeasured;
        if (row[infoProcessDate].textLength() > 0 && DateExtract(row[infoProcessDate], s) && s != -1)
            dProcess = s;
    }
    double rowDieX = Num(row[infoDieSizeX]), rowDieY = Num(row[infoDieSizeY]);
    L.LotName = CellText(row[infoLot]);
    if (L.LotName.empty()) L.LotName = baseName;
    L.MetrologyTool = CellText(row[infoMetrologynom]);
    L.ExposureTool = CellText(row[infoExposureTool]);
    L.ProcessStep = CellText(row[infoProcessStep]);
    L.ReWork = CellText(row[infoRework]);
    L.UserName = CellText(row[infoUserName]);
    L.ReticleName = row[infoReticle];

    // 13. Exposure values by key.
    p.chk = 13;
    const double NA = Num(InfoByKey(info, "NA")), PCi = Num(InfoByKey(info, "PCinner")),
                 PCo = Num(InfoByKey(info, "PCouter")), Fo = Num(InfoByKey(info, "Fo")),
                 FocusStep = Num(InfoByKey(info, "FocusStep")), Dose = Num(InfoByKey(info, "Dose")),
                 DoseStep = Num(InfoByKey(info, "DoseStep"));
    {
        Value t = InfoByKey(info, "ExposureToolType");
        double d;
        if (NumberOf(t, d)) L.ExposureToolType = static_cast<long>(d);
        else {
            const std::string word = Upper(Trim(CellText(t)));
            L.ExposureToolType = word == "STEPPER" ? 1 : 0;  // "SCANNER" and anything else: 0
        }
    }
    // 14.
    p.chk = 14;
    L.DataSource(DataSourceOfText(CellText(row[infoDataType])));
    const long ds = L.DataSource();
    // 15. Names.
    p.chk = 15;
    L.FileName = IEquals(ws->name(), cleanBase) ? baseName : baseName + " [" + ws->name() + "]";
    L.DataSheetName = IEquals(ws->name(), cleanBase) ? std::string() : ws->name();
    L.FilePath = folder;
    L.DateMeasured = DateText(dMeasured);
    L.TimeMeasured = TimeText(tMeasured);
    L.ProcessDate = dProcess;
    // 16. Geometry, micrometres.
    p.chk = 16;
    L.DieSizeX = static_cast<float>(rowDieX * 1000);
    L.DieSizeY = static_cast<float>(rowDieY * 1000);
    L.SiteXoffset = static_cast<float>(Num(row[infoSiteXoffset]) * 1000);
    L.SiteYoffset = static_cast<float>(Num(row[infoSiteYoffset]) * 1000);
    L.DieXarray = static_cast<float>(Num(row[infoDieXarray]));
    L.DieYarray = static_cast<float>(Num(row[infoDieYarray]));
    L.DieXoffset = static_cast<float>(Num(row[infoDieXoffset]) * 1000);
    L.DieYoffset = static_cast<float>(Num(row[infoDieYoffset]) * 1000);
    L.CullRadiusSetting = L.WaferSize / 2;
    L.xlwb = wb;
    const double gx = static_cast<double>(L.DieXarray) * L.DieSizeX + L.DieXoffset;
    const double gy = static_cast<double>(L.DieYarray) * L.DieSizeY + L.DieYoffset;

    // 17. Columns and rows.
    p.chk = 17;
    const int nCols = area.col2;
    if (nCols < 3) {
        p.msg = "Improper worksheet setup. Only " + std::to_string(nCols) + " columns of data.";
        closeApps();
        return -1;
    }
    if (area.row2 < 2) {
        p.msg = "There are no data rows to import from worksheet.";
        closeApps();
        return -1;
    }
    // 18. The header.
    p.chk = 18;
    const Datam data = ws->range(Area{1, 1, std::min(area.row2, 1000), area.col2});
    int hr = -1, hc = -1, wc = -1;
    if (FindFirstRow(data, hr, hc, "Wafer", kDefaultBound, kDefaultBound, kDefaultBound, kDefaultBound, true) >= 0)
        wc = hc;
    else if (FindFirstRow(data, hr, hc, "Test", kDefaultBound, kDefaultBound, kDefaultBound, kDefaultBound, true) >= 0)
        wc = hc - 1;
    else if (FindFirstRow(data, hr, hc, "DieX", kDefaultBound, kDefaultBound, kDefaultBound, kDefaultBound, true) >= 0)
        wc = hc - 2;
    if (wc < 0 && hr < 0) {
        p.msg = "This is not a proper format data sheet.";
        closeApps();
        return -1;
    }
    // 19. Value names.
    p.chk = 19;
    auto head = [&](int c) { return Trim(CellText(data.get(hr, c))); };
    L.ValueV_Name = head(wc + 4);
    L.ValueH_Name = head(wc + 5);
    bool zDerived = false;
    if (nCols > 6) {
        L.valueZ_Name = head(wc + 6);
        if (L.valueZ_Name.empty()) L.valueZ_Name = ds == 4 ? "Mean" : "Length";
    } else if (!L.LineWidthType) {
        L.valueZ_Name = "Mean";
        zDerived = true;
    }
    std::string* more[] = {&L.Slope_Name, &L.Pitch_Name, &L.ValueA_Name, &L.ValueB_Name, &L.ValueC_Name};
    for (int i = 0; i < 5; ++i)
        if (wc + 7 + i <= data.colUb()) *more[i] = head(wc + 7 + i);
    (void)zDerived;
    // The value columns in order (up to 8), within the table.
    int valueCols[8];
    int nValues = 0;
    for (int i = 0; i < 8; ++i)
        if (wc + 4 + i >= data.colLb() && wc + 4 + i <= data.colUb()) valueCols[nValues++] = wc + 4 + i;

    // 20. Die sizes for the rows.
    p.chk = 20;
    const double dsx = std::max(1.0, rowDieX) * 1000, dsy = std::max(1.0, rowDieY) * 1000;

    // Site table rows prepared once: location, key text, family number.
    const int nSiteRows = sites.rowUb();
    struct SiteRow {
        float x = 0, y = 0;
        bool ok = false;
        long family = 0;
        std::string key;
    };
    std::vector<SiteRow> siteRows(static_cast<size_t>(std::max(0, nSiteRows)) + 1);
    {
        std::unordered_map<std::string, long> famIndex;
        for (int r = 1; r <= nSiteRows; ++r) {
            SiteRow& sr = siteRows[r];
            double x, y;
            const Value& vx = sites.get(r, 1);
            const Value& vy = sites.get(r, 2);
            sr.ok = vx.textLength() > 0 && vy.textLength() > 0 && NumberOf(vx, x) && NumberOf(vy, y);
            if (sr.ok) {
                sr.x = static_cast<float>(x * 1000);
                sr.y = static_cast<float>(y * 1000);
            }
            sr.key = std::to_string(r);
            if (famCol >= 0) {
                std::string fn = CellText(sites.get(r, famCol));
                auto it = famIndex.find(fn);
                if (it == famIndex.end()) {
                    long n = families.rowUb() + 1;
                    families.redimPreserve(n, 3);
                    families(n, 0) = static_cast<int32_t>(n);
                    families(n, 1) = fn;
                    families(n, 2) = 0;
                    families(n, 3) = true;
                    it = famIndex.emplace(fn, n).first;
                }
                sr.family = it->second;
            }
        }
    }
    std::vector<int32_t> famCount(static_cast<size_t>(families.rowUb()) + 1, 0);

    // 21. The rows.
    p.chk = 21;
    const int firstRow = hr + 1, lastRow = area.row2;
    const long n = lastRow - firstRow + 1;
    const std::string nText = std::to_string(n);
    SetStatusText("    Zorv Data Upload row 1 of " + nText);
    int emptyNames = 0;
    Value lastWaferCell;
    bool haveLastWafer = false;
    double lastDieX = 1e300, lastDieY = 1e300;
    long lastSiteNo = -1;
    double dieXmin = 1e10, dieXmax = -1e10, dieYmin = 1e10, dieYmax = -1e10;
    int kLeft = 0;
    const int stride = data.colCount();
    const int colLb = data.colLb();
    const bool testIn = wc + 1 >= colLb && wc + 1 <= data.colUb();
    const bool dxIn = wc + 2 >= colLb && wc + 2 <= data.colUb();
    const bool dyIn = wc + 3 >= colLb && wc + 3 <= data.colUb();
    const bool wIn = wc >= colLb && wc <= data.colUb();
    static const Value kEmpty;
    int r = firstRow;
    constexpr int kBlock = 32768;
    Datam block;
    int blockFirst = 0, blockLast = -1;
    bool ok = Guarded(p, [&] {
        for (; r <= lastRow; ++r) {
            if (r > blockLast) {
                blockFirst = r;
                blockLast = std::min(lastRow, r + kBlock - 1);
                block = Datam();
                block = ws->range(Area{blockFirst, 1, blockLast, area.col2});
            }
            if ((r - firstRow) % 100 == 0 && r != firstRow) {
                SetStatusText(": Zorv Data Upload: row " + std::to_string(r - firstRow) + " of " + nText);
                if (CheckEscKey()) break;
            }
            const Value* rowp = block.data() + static_cast<size_t>(r - blockFirst) * stride - colLb;
            const Value& cw = wIn ? rowp[wc] : kEmpty;
            double test, dieX, dieY;
            if (!testIn || !dxIn || !dyIn || !NumberOf(rowp[wc + 1], test) || !NumberOf(rowp[wc + 2], dieX) ||
                !NumberOf(rowp[wc + 3], dieY))
                continue;
            if (!NonBlank(cw)) {
                if (++emptyNames >= 5) break;
                continue;
            }
            emptyNames = 0;
            // Wafer: a change of name clears the current wafer.
            bool same = haveLastWafer && cw.type() == lastWaferCell.type() &&
                        (cw.isString() ? cw.str() == lastWaferCell.str() : cw.identical(lastWaferCell));
            if (!same) {
                curWafer = nullptr;
                lastWaferCell = cw;
                haveLastWafer = true;
            }
            if (!curWafer) {
                std::string wname = cw.isNumberType() || IsNumericValue(cw) ? "W" + cw.toString() : cw.toString();
                bool isNew = false;
                curWafer = L.AddWafer(wname, isNew);
                curField = nullptr;
                curSite = nullptr;
                lastDieX = lastDieY = 1e300;
                lastSiteNo = -1;
                if (isNew) {
                    curWafer->FieldPitchX = static_cast<float>(dsx);
                    curWafer->FieldPitchY = static_cast<float>(dsy);
                    if (!splitByField) {
                        auto f = std::make_unique<cField>();
                        f->Number = 1;
                        f->setParentWafer(curWafer);
                        std::string key = "W" + std::to_string(curWafer->Number()) + "F1";
                        curField = curWafer->Fields().Add(std::move(f), key);
                    }
                } else if (!splitByField) {
                    curField = curWafer->Fields().At(1);
                }
            }
            // Field.
            if (splitByField) {
                if (!curField || dieX != lastDieX || dieY != lastDieY) {
                    curField = nullptr;
                    curSite = nullptr;
                    lastSiteNo = -1;
                    lastDieX = dieX;
                    lastDieY = dieY;
                    dieXmin = std::min(dieXmin, dieX);
                    dieXmax = std::max(dieXmax, dieX);
                    dieYmin = std::min(dieYmin, dieY);
                    dieYmax = std::max(dieYmax, dieY);
                    bool isNew = false;
                    curField = curWafer->AddField(static_cast<float>(dieX), static_cast<float>(dieY), isNew, true);
                    if (isNew) {
                        curField->LocationX = static_cast<float>(dieX * dsx);
                        curField->LocationY = static_cast<float>(dieY * dsy);
                        double cx = curField->LocationX + dsx / 2, cy = curField->LocationY + dsy / 2;
                        curField->LocationR = static_cast<float>(std::hypot(cx, cy));
                        curField->LocationTheta = static_cast<float>(std::atan2(cy, cx));
                    }
                }
            }
            // Site.
            const long siteNo = static_cast<long>(std::floor(test));
            if (siteNo != lastSiteNo) curSite = nullptr;
            lastSiteNo = siteNo;
            Ref<cSite> site;
            if (!curSite) {
                // A site number beyond the table cannot be in the field either.
                if (siteNo < 1 || siteNo > nSiteRows) continue;
                cSite* found = splitByField ? curField->sites().Item(siteRows[siteNo].key)
                                            : curWafer->SitesWafer().Item(siteRows[siteNo].key);
                if (found && found->NumberKey() == siteNo) {
                    site = Ref<cSite>(found);
                } else {
                    if (!siteRows[siteNo].ok) continue;
                    const SiteRow& sr = siteRows[siteNo];
                    site = cSite::New();
                    site->setNumberKey(static_cast<int32_t>(siteNo));
                    site->LocationX = sr.x;
                    site->LocationY = sr.y;
                    double lx = sr.x + L.SiteXoffset, ly = sr.y + L.SiteYoffset;
                    site->LocationR = static_cast<float>(std::hypot(lx, ly));
                    site->LocationTheta = static_cast<float>(std::atan2(ly, lx == 0 ? 1e-27 : lx));
                    if (splitByField) {
                        double ax = curField->LocationX + gx + dsx / 2 + lx;
                        double ay = curField->LocationY + gy + dsy / 2 + ly;
                        site->LocationXabs = static_cast<float>(ax);
                        site->LocationYabs = static_cast<float>(ay);
                        site->LocationRabs = static_cast<float>(std::hypot(ax, ay));
                        site->LocationThetaAbs = static_cast<float>(std::atan2(ay, ax));
                        site->WaferX = site->LocationXabs;
                        site->WaferY = site->LocationYabs;
                    }
                    // Without the split the wafer's one field is the parent,
                    // so that the points know their lot.
                    site->setParent(curField);
                    if (famCol >= 0) {
                        ++famCount[sr.family];
                        site->setFamily(sr.family);
                        site->setFamilyName(CellText(families(sr.family, 1)));
                    }
                    if (splitByField) curField->sites().Add(site, sr.key);
                    else curWafer->SitesWafer().Add(site, sr.key);
                }
                curSite = site.get();
            }
            // Point.
            bool anyValue = false;
            for (int i = 0; i < nValues; ++i)
                if (NonBlank(rowp[valueCols[i]])) {
                    anyValue = true;
                    break;
                }
            kLeft = nValues + 1;
            if (!anyValue) continue;
            auto pt = std::make_unique<cPoint>();
            float* slots[8] = {&pt->ValueV, &pt->ValueH, &pt->ValueZ, &pt->Slope,
                               &pt->Pitch,  &pt->ValueA, &pt->ValueB, &pt->ValueC};
            for (int i = 0; i < nValues; ++i) {
                double v;
                if (NumberOf(rowp[valueCols[i]], v)) *slots[i] = static_cast<float>(v * 1000);
            }
            if (pt->ValueZ == kMiss) {
                if ((ds == 0 || ds == 1) && pt->ValueV != kMiss && pt->ValueH != kMiss)
                    pt->ValueZ = std::sqrt(pt->ValueV * pt->ValueV + pt->ValueH * pt->ValueH);
                else if (ds == 4 && pt->ValueV != kMiss && pt->ValueH != kMiss)
                    pt->ValueZ = (pt->ValueV + pt->ValueH) / 2;
            }
            // The site is in its collection already; the point joins it under
            // the site number (a repeated key is renumbered by the site).
            curSite->AddPoint(std::move(pt), siteRows[siteNo].key);
        }
    });
    block = Datam();
    if (!ok) {
        std::string cells;
        for (int c = 1; c <= area.col2; ++c) {
            if (c > 1) cells += ", ";
            cells += CellText(ws->cell(r, c));
        }
        Failure f = p.failure();
        p.quiet();
        MsgBox(f.tag + "\r\n" + f.text + "...Load Error Track: " + ChkText(p.chk) + "... Row " +
                   std::to_string(r) + " of " + std::to_string(lastRow) + " on input.\r\n" + cells + " chk: " +
                   ChkText(p.chk),
               vbCritical, VersionLine());
        closeApps();
        return -1;
    }

    // 22. Families, die range, units.
    p.chk = 22;
    for (int i = 1; i <= families.rowUb(); ++i)
        if (famCol >= 0) families(i, 2) = famCount[i];
    L.FamilyNames = families;
    if (splitByField && dieXmin <= dieXmax) {
        L.DieXmax = static_cast<float>(dieXmax);
        L.DieYmax = static_cast<float>(dieYmax);
        L.DieXmin = static_cast<float>(dieXmin);
        L.DieYmin = static_cast<float>(dieYmin);
    }
    L.UpdateUnits(T.units);

    // 23. Exposure values of the fields; k runs on from the row loop.
    p.chk = 23;
    SetStatusText("Set up Field exposure display values.");
    int k = kLeft;
    for (cWafer* w : L.Wafers()) {
        cField* origin = nullptr;
        for (cField* f : w->Fields()) {
            f->NA = static_cast<float>(NA);
            f->PCinner = static_cast<float>(PCi);
            f->PCouter = static_cast<float>(PCo);
            f->Focus = static_cast<float>(Fo + k * FocusStep);
            f->Dose = static_cast<float>(Dose + k * DoseStep);
            ++k;
            if (!origin || f->DieY < origin->DieY || (f->DieY == origin->DieY && f->DieX < origin->DieX))
                origin = f;
        }
        if (origin)
            for (cLayout& l : w->Layouts) {
                l.DieXo = origin->DieX;
                l.DieYo = origin->DieY;
            }
        if (ds == 5) break;
    }
    if (cWafer* w = L.Wafers().At(1)) {
        L.CurrentWaferKey = w->KeyName;
        if (cField* f = w->Fields().At(1)) L.CurrentFieldKey = f->NumberKey;
    }

    // 24. Layout tables.
    p.chk = 24;
    SetStatusText("Update exposure layout for " + L.LotName);
    if (GetLayoutData(wb.get(), T.layoutSetup, T.layoutValues)) ApplyLayoutValues(L, T.layoutValues);

    // 25. Wafer size, first pass.
    p.chk = 25;
    if (L.WaferSize < 75000 || L.WaferSize == 200000) {
        double spanX = dieXmin <= dieXmax ? dieXmax - dieXmin + 1 : 1;
        double spanY = dieYmin <= dieYmax ? dieYmax - dieYmin + 1 : 1;
        L.WaferSize = SnapFirst(static_cast<float>(std::max(dsx * spanX, dsy * spanY)));
        L.CullRadiusSetting = L.WaferSize / 2;
    }
    // 26.
    p.chk = 26;
    L.CalcWaferPositions();
    if (nSiteRows > 1) CalcSiteStep(L);
    // 27. Second pass when no size was given.
    p.chk = 27;
    if (givenMm < 75) {
        double rx = dieXmin <= dieXmax ? dieXmax - dieXmin : 0;
        double ry = dieYmin <= dieYmax ? dieYmax - dieYmin : 0;
        double est = std::max((rx + 3) * dsx, (ry + 3) * dsy);
        L.WaferSize = SnapSecond(static_cast<float>(est));
        L.CullRadiusSetting = L.WaferSize / 2;
    }
    // 28.
    p.chk = 28;
    if (L.WaferSize < 75) {
        double mm = 200;
        ParseNumber(GetSetting(ProductName(), "ToolSettings", "Substrate", "200"), mm);
        L.WaferSize = static_cast<float>(mm * 1000);
        L.CullRadiusSetting = L.WaferSize / 2;
    }
    SaveSetting(ProductName(), "ToolSettings", "Substrate", NumberToText(L.WaferSize));

    // 29.
    p.chk = 29;
    SetStatusText(ApplicationTitle() + " Ready");
    T.workbook = wb;
    T.sheetName = ws->name();
    SetStatusText("Excel xlwb set.");
    SetStatusText("... Upload complete");
    return 1;
}

}  // namespace zorv
