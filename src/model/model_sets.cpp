// Reading model sheets into the model collections and the library sets,
// copying a set onto a wafer or field, the two process window models built
// in code, and the lot-wide reports of the fits.
#include <algorithm>
#include <cmath>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "base/format.h"
#include "base/report.h"
#include "base/text.h"
#include "model/model_sets.h"
#include "numerics/matrix.h"
#include "workbook/data_workbook.h"
#include "workbook/store.h"

namespace zorv {

namespace {

// ---------------------------------------------------------------- sheet reading

// The six header rows under "Name".
struct SheetHeader {
    std::string name, dateCreated, dateModified, comment;
    long numberModels = 0, numberCalculations = 0;
    bool numberKnown = false;
    int nameRow = 0, nameCol = 0;  // the cell of the set's name
};

std::string CellText(const Value& v) {
    if (v.isEmpty() || v.isNull() || v.isError()) return {};
    return Trim(v.toString());
}

std::string Unquoted(const Value& v) { return Trim(Replace(CellText(v), "\"", "")); }

bool CellNumber(const Value& v, long& out) {
    if (v.isEmpty() || !IsNumericValue(v)) return false;
    out = static_cast<long>(std::lround(v.toDouble()));
    return true;
}

int Find(const Datam& sheet, std::string_view text, int fromRow, int& col, int lastRow = kDefaultBound) {
    int row = -1;
    FindFirstRow(sheet, row, col, text, lastRow, kDefaultBound, fromRow, kDefaultBound, true);
    return row;
}

// A family name: the lot's family table first, then the names its sites
// carry. Asking a site for its name may settle an unnamed family, so the
// family is put back as it was.
bool FamilyByName(const cLot* lot, const std::string& name, long& family) {
    if (!lot) return false;
    const Datam& t = lot->FamilyNames;
    if (t.isArray() && t.dims() == 2 && t.colUb() >= t.colLb() + 1)
        for (int r = std::max(1, t.rowLb()); r <= t.rowUb(); ++r)
            if (IEquals(CellText(t(r, t.colLb() + 1)), name)) {
                long n = 0;
                if (CellNumber(t(r, t.colLb()), n)) {
                    family = n;
                    return true;
                }
            }
    for (cWafer* w : lot->Wafers())
        for (cField* f : w->Fields())
            for (cSite* s : f->sites()) {
                const long before = s->Family();
                const bool match = IEquals(s->FamilyName(), name);
                if (s->Family() != before) s->setFamily(before);
                if (match) {
                    family = before;
                    return true;
                }
            }
    return false;
}

// How a sheet is read: the key separator, and whether the fifth model cell
// (the field model type) counts.
struct SheetForm {
    const char* sep;
    bool field;
};

// Reads a model sheet into `out`; `adopt` gives each model its parent.
Status ReadModelSheet(Proc& p, const Datam& sheet, const cLot* lot, const SheetForm& form, SheetHeader& head,
                      ModelList& out, const std::function<void(Cmodel&)>& adopt) {
    p.chk = 1;
    int col = -1;
    const int nameRow = Find(sheet, "Name", kDefaultBound, col);
    if (nameRow < 0) return p.fail("Could not find first row with 'Name' of model.");
    const int vc = col + 1;
    head.name = CellText(sheet.get(nameRow, vc));
    head.numberKnown = CellNumber(sheet.get(nameRow + 1, vc), head.numberModels);
    head.dateCreated = CellText(sheet.get(nameRow + 2, vc));
    head.dateModified = CellText(sheet.get(nameRow + 3, vc));
    if (!CellNumber(sheet.get(nameRow + 4, vc), head.numberCalculations)) head.numberCalculations = 0;
    head.comment = CellText(sheet.get(nameRow + 5, vc));
    head.nameRow = nameRow;
    head.nameCol = vc;

    p.chk = 2;
    // "ALL" and an unknown name: family 0, the model of whichever family is
    // being fitted.
    constexpr long kDefaultFamily = 0;
    int from = nameRow + 1;
    for (long i = 1; !head.numberKnown || i <= head.numberModels; ++i) {
        int mc = -1;
        const int mr = Find(sheet, "[Model]", from, mc);
        if (mr < 0) {
            if (!head.numberKnown) {
                head.numberModels = i - 1;
                break;
            }
            return p.fail("Could not find '[Model]' for model " + std::to_string(i) + " of " +
                          std::to_string(head.numberModels) + ".");
        }
        // The next model's marker bounds this one's term list.
        int nc = -1;
        const int next = Find(sheet, "[Model]", mr + 1, nc);
        const int last = next > 0 ? next - 1 : kDefaultBound;

        auto m = std::make_unique<Cmodel>();
        const int vr = mr + 2;
        m->Name = CellText(sheet.get(vr, mc));
        long family = kDefaultFamily;
        const Value& famCell = sheet.get(vr, mc + 1);
        if (!CellNumber(famCell, family)) {
            family = kDefaultFamily;
            const std::string t = CellText(famCell);
            if (!t.empty() && !IEquals(t, "ALL")) FamilyByName(lot, t, family);
        }
        long variable = 0;
        const Value& varCell = sheet.get(vr, mc + 2);
        if (!CellNumber(varCell, variable)) {
            const std::string t = Upper(CellText(varCell));
            variable = t.find('X') != std::string::npos   ? 1
                       : t.find('Y') != std::string::npos ? 2
                                                          : i;
        }
        long count = 0;
        const bool countKnown = CellNumber(sheet.get(vr, mc + 3), count) && count >= 1;
        if (form.field) {
            long type = 0;
            const Value& typeCell = sheet.get(vr, mc + 4);
            if (CellNumber(typeCell, type) && type >= 1 && type <= 3) {
                m->FieldModelType = static_cast<int>(type);
            } else {
                const std::string t = Upper(CellText(typeCell));
                m->FieldModelType = t.find("ROW") != std::string::npos   ? 1
                                    : t.find("COL") != std::string::npos ? 2
                                                                         : 3;
            }
        }
        m->PlotFeature = static_cast<int>(variable);
        m->FamilyType = static_cast<int>(family);
        m->Key = m->Name + form.sep + std::to_string(variable) + form.sep + std::to_string(family);

        p.chk = 3;
        int cc = -1;
        const int cr = Find(sheet, "[Coefficients]", mr + 1, cc, last);
        if (cr < 0) return p.fail("Could not locate coefficient information for: " + m->Key);
        int r = cr + 2;
        const int end = last == kDefaultBound ? sheet.rowUb() : last;
        for (long k = 1; countKnown ? k <= count : r <= end; ++k, ++r) {
            const std::string name = CellText(sheet.get(r, cc));
            if (name.empty()) {
                if (!countKnown && k > 1) break;
                return p.fail("Could not locate coefficient information for: " + m->Key);
            }
            long threshold = 1;
            if (!CellNumber(sheet.get(r, cc + 4), threshold)) threshold = 1;
            std::string format = Unquoted(sheet.get(r, cc + 2));
            if (format.empty()) format = "0.0000";
            m->AddTerm(name, Unquoted(sheet.get(r, cc + 5)), static_cast<int>(threshold),
                       Unquoted(sheet.get(r, cc + 3)), format, CellText(sheet.get(r, cc + 1)));
        }
        from = r;

        p.chk = 4;
        adopt(*m);
        const std::string key = m->Key;
        if (!out.Add(std::move(m), key))
            return p.fail("Model key already in use: " + key + ". Models need their own name, variable and family.");
    }
    return StatusOk();
}

}  // namespace

// ---------------------------------------------------------------- loading sheets

Status Models::LoadModelArray(const Datam& sheet, cLot* lot) {
    Proc p("Models(LoadModelArray): ");
    p.chk = 0;
    if (!parent) return p.fail("Wafer parent for Model Library not set.");
    // A sheet that fails leaves the collection as it was.
    SheetHeader head;
    ModelList read;
    cWafer* w = parent;
    Status st = ReadModelSheet(p, sheet, lot, SheetForm{"_", false}, head, read, [w](Cmodel& m) {
        m.ParentWafer = w;
        m.ParentField = nullptr;
    });
    if (!st) return st;
    models = std::move(read);
    Name = head.name;
    Comments = head.comment;
    return StatusOk();
}

Status ModelsField::LoadModelArray(const Datam& sheet, cLot* lot) {
    Proc p("ModelsField(LoadModelArray): ");
    p.chk = 0;
    if (!parent) return p.fail("Field parent for Model Library not set.");
    SheetHeader head;
    ModelList read;
    cField* f = parent;
    Status st = ReadModelSheet(p, sheet, lot, SheetForm{"_", true}, head, read, [f](Cmodel& m) {
        m.ParentField = f;
        m.ParentWafer = f->ParentWafer();
    });
    if (!st) return st;
    models = std::move(read);
    Name = head.name;
    Comments = head.comment;
    return StatusOk();
}

namespace {

// A set takes a new name, and the sheet with it, only when it differs from
// the sheet's (case blind).
Status LoadSet(cModelSet& set, Proc& p, Datam& sheet, const cLot* lot, std::string_view newName, bool field) {
    SheetHeader head;
    ModelList read;
    Status st = ReadModelSheet(p, sheet, lot, SheetForm{"~", field}, head, read, [](Cmodel&) {});
    if (!st) return st;
    if (!newName.empty() && !IEquals(head.name, newName)) {
        head.name = std::string(newName);
        if (sheet.inRange(head.nameRow, head.nameCol)) sheet(head.nameRow, head.nameCol) = Value(head.name);
    }
    set.models = std::move(read);
    set.NameSet = head.name;
    set.Key = head.name;
    set.NumberModels = set.models.Count();
    set.DateCreated = head.dateCreated;
    set.DateModified = head.dateModified;
    set.NumberCalculations = head.numberCalculations;
    set.Comment = head.comment;
    return StatusOk();
}

}  // namespace

Status cModelSet::LoadWaferModelArray(Datam& sheet, const cLot* lot, std::string_view newName) {
    Proc p("cModelSet(LoadWaferModelArray): ");
    return LoadSet(*this, p, sheet, lot, newName, false);
}

// The field reader answers under the wafer reader's old tag.
Status cModelSet::LoadFieldModelArray(Datam& sheet, const cLot* lot, std::string_view newName) {
    Proc p("Models(LoadWaferModelArray): ");
    return LoadSet(*this, p, sheet, lot, newName, true);
}

Status LoadModelLibraries(const std::string& workbookPath, cModelWaferLib& wafers, cModelFieldLib& fields) {
    auto opened = Workbook::open(workbookPath, Workbook::Load::Full);
    if (!opened) return opened.failure();
    WorkbookPtr wb = *opened;
    for (int i = 1; i <= wb->sheetCount(); ++i) {
        Worksheet* ws = wb->sheet(i);
        Datam cells = ws->usedRange();
        if (!cells.isArray() || cells.rowCount() == 0) continue;
        const bool field = IContains(ws->name(), "Field");
        auto set = std::make_unique<cModelSet>();
        Status st = field ? set->LoadFieldModelArray(cells, nullptr) : set->LoadWaferModelArray(cells, nullptr);
        if (!st) {
            Failure f = st.failure();
            f.file = workbookPath;
            f.sheet = ws->name();
            return f;
        }
        if (field) fields.Add(std::move(set));
        else wafers.Add(std::move(set));
    }
    return StatusOk();
}

// ---------------------------------------------------------------- sets onto wafers and fields

namespace {

// A set's models onto a wafer's or field's collection, each clone told its
// new parent.
template <class Collection, class SetParent>
void CopySet(Collection& m, const cModelSet& set, SetParent setParent) {
    m.Clear();
    m.Comments = set.Comment;
    m.Name = set.NameSet;
    for (const Cmodel* x : set.models) {
        auto c = x->clone();
        setParent(*c);
        const std::string key = c->Key;
        m.models.Add(std::move(c), key);
    }
}

}  // namespace

Status LoadWaferModelObject(cWafer& w, std::string_view setName, const cModelLib* library) {
    Proc p("cWafer(LoadWaferModelObject): ");
    p.chk = 1;
    if (!library) return p.fail("Model library not provided.");
    p.chk = 2;
    const cModelSet* set = library->Find(setName);
    if (!set) return p.fail("Could not locate wafer model: " + std::string(setName));
    p.chk = 3;
    CopySet(WaferModels(w), *set, [&](Cmodel& c) {
        c.ParentWafer = &w;
        c.ParentField = nullptr;
    });
    return StatusOk();
}

Status LoadFieldModelObject(cField& f, std::string_view setName, const cModelLib* library) {
    Proc p("cField(LoadFieldModelObject): ");
    p.chk = 1;
    if (!library) return p.fail("Model library not provided.");
    p.chk = 2;
    const cModelSet* set = library->Find(setName);
    if (!set) return p.fail("Could not locate field model: " + std::string(setName));
    p.chk = 3;
    CopySet(FieldModels(f), *set, [&](Cmodel& c) {
        c.ParentField = &f;
        c.ParentWafer = f.ParentWafer();
    });
    return StatusOk();
}

// ---------------------------------------------------------------- process window models

// Whole field, family 1; the thresholds follow the order of each term so
// that a small field keeps the lower orders only.
std::unique_ptr<Cmodel> LoadPWModel(int feature) {
    auto m = std::make_unique<Cmodel>();
    m->Name = "PWField";
    m->FieldModelType = 3;
    m->PlotFeature = feature;
    m->FamilyType = 1;
    m->Key = m->Name + "_" + std::to_string(feature) + "_" + std::to_string(m->FamilyType);
    m->AddTerm("Piston", "1", 1, "", "0.0000");
    m->AddTerm("TiltX", "X", 3, "urad", "0.0000");
    m->AddTerm("TiltY", "Y", 3, "urad", "0.0000");
    m->AddTerm("CurvX", "X^2", 4, "nm/cm2", "0.0000");
    m->AddTerm("CurvY", "Y^2", 4, "nm/cm2", "0.0000");
    return m;
}

std::unique_ptr<Cmodel> LoadPW_WafModelPentode() {
    auto m = std::make_unique<Cmodel>();
    m->Name = "Pentode";
    m->Key = "Setup";
    m->FamilyType = 1;
    m->PlotFeature = 1;
    m->AddTerm("Offset", "1", 1, "", "0.000#");
    m->AddTerm("TiltX", "R * cos(Theta)", 3, "urad", "0.0000");
    m->AddTerm("TiltY", "R * Sin(Theta)", 3, "urad", "0.0000");
    m->AddTerm("BowX", "(R * Cos(Theta))^2", 4, "nm/cm2", "0.0000");
    m->AddTerm("BowY", "(R * Sin(Theta))^2", 4, "nm/cm2", "0.0000");
    m->AddTerm("TriFoilX", "R^3 * cos(3*Theta)", 5, "nm/cm3", "0.0000");
    m->AddTerm("TriFoilY", "R^3 * sin(3*Theta)", 5, "nm/cm3", "0.0000");
    m->AddTerm("PentodeX", "R^5 * cos(5*Theta)", 6, "nm/cm5", "0.0000");
    m->AddTerm("PentodeY", "R^5 * sin(5*Theta)", 6, "nm/cm5", "0.0000");
    m->AddTerm("Pentode", "R^5", 6, "nm/cm5", "0.0000");
    return m;
}

// ---------------------------------------------------------------- reports of the fits

namespace {

// One fitted model of one wafer or field, as a report row takes it.
struct FitRow {
    const Cmodel* model;
    cWafer* wafer;
    cField* field;  // nullptr in the wafer report
};

// The feature and family a fit was made for: the model's own, else those of
// its last fit record, else the lot's current feature.
int FitFeature(const Cmodel& m, const cLot& lot) {
    if (m.PlotFeature != -1) return m.PlotFeature;
    if (m.FitLibrary.Count() > 0) return m.FitLibrary.Item(m.FitLibrary.Count())->PlotFeature;
    return lot.PlotFeature();
}

int FitFamily(const Cmodel& m) {
    if (m.FamilyType != 0 || m.FitLibrary.Count() == 0) return m.FamilyType;
    return m.FitLibrary.Item(m.FitLibrary.Count())->FamilyType;
}

// The equation of averaged coefficients, in the form the fits write.
std::string AverageEquation(const Cmodel& m, const std::vector<double>& means) {
    std::string eq;
    int k = 0;
    for (const cCoefficient* c : m.Coefficients) {
        const double v = means[static_cast<size_t>(k++)];
        if (k > 1 && static_cast<float>(v) == 0.0f) continue;
        std::string term = c->ValueString();
        if (term.find_first_of("+-") != std::string::npos) term = "(" + term + ")";
        std::string part = CStrNumber(std::fabs(v));
        if (term != "1") part += " * " + term;
        if (eq.empty()) eq = (v < 0 ? "-" : "") + part;
        else eq += (v < 0 ? " - " : " + ") + part;
    }
    return eq;
}

struct ReportForm {
    std::vector<const char*> heads;  // identity columns
    const char* numberFormat;
};

// Writes the rows of every model, then a summary block per model; `ident`
// fills a row's identity columns. Keeps the means and errors of `avgModel`.
Datam BuildReport(const ModelList& models, const std::vector<std::vector<FitRow>>& rows,
                  const ReportForm& form, const std::function<void(Datam&, int, const FitRow&)>& ident,
                  const Cmodel* avgModel, Datam& avgCoefs, Datam& avgSigma, std::string& avgEquation) {
    const int nid = static_cast<int>(form.heads.size());
    int maxTerms = 0;
    for (const Cmodel* m : models) maxTerms = std::max(maxTerms, m->Coefficients.Count());
    const int mseCol = nid + 2 * maxTerms;
    const int lastCol = mseCol;

    // A model's term names and their "_SE" columns, and "MSE", into a header row.
    auto termHeads = [&](Datam& d, int r, const Cmodel& m) {
        int k = 0;
        for (const cCoefficient* c : m.Coefficients) {
            d(r, nid + 2 * k) = Value(c->NameCoef);
            d(r, nid + 2 * k + 1) = Value(c->NameCoef + "_SE");
            ++k;
        }
        d(r, mseCol) = Value("MSE");
    };
    auto sameTerms = [](const Cmodel& a, const Cmodel& b) {
        if (a.Coefficients.Count() != b.Coefficients.Count()) return false;
        for (int k = 1; k <= a.Coefficients.Count(); ++k)
            if (a.Coefficients.Item(k)->NameCoef != b.Coefficients.Item(k)->NameCoef) return false;
        return true;
    };

    // Rows: a header, the fits, a fresh header where a model's terms differ
    // from those above; then per model a separator and four summary rows.
    int total = 1;
    const Cmodel* headed = nullptr;
    int mi = 0;
    for (const Cmodel* m : models) {
        if (headed && !sameTerms(*headed, *m)) ++total;
        if (!headed || !sameTerms(*headed, *m)) headed = m;
        total += static_cast<int>(rows[static_cast<size_t>(mi++)].size());
    }
    total += 4 * models.Count();
    Datam d(total - 1, lastCol, 0, 0);
    for (int c = 0; c < nid; ++c) d(0, c) = Value(form.heads[static_cast<size_t>(c)]);

    int r = 0;
    headed = nullptr;
    mi = 0;
    for (const Cmodel* m : models) {
        if (!headed || !sameTerms(*headed, *m)) {
            if (headed) {
                ++r;
                for (int c = 0; c < nid; ++c) d(r, c) = Value(form.heads[static_cast<size_t>(c)]);
            }
            termHeads(d, r, *m);
            headed = m;
        }
        for (const FitRow& fr : rows[static_cast<size_t>(mi)]) {
            ++r;
            ident(d, r, fr);
            int k = 0;
            for (const cCoefficient* c : fr.model->Coefficients) {
                if (k >= m->Coefficients.Count()) break;
                d(r, nid + 2 * k) = Value(c->Value);
                d(r, nid + 2 * k + 1) = Value(c->Sigma);
                ++k;
            }
            d(r, mseCol) = Value(static_cast<double>(fr.model->MSE));
        }
        ++mi;
    }

    mi = 0;
    for (const Cmodel* m : models) {
        const auto& mr = rows[static_cast<size_t>(mi++)];
        const int t = m->Coefficients.Count();
        ++r;
        for (int c = 0; c <= lastCol; ++c) d(r, c) = Value("________");
        ++r;
        d(r, 0) = Value("  Model");
        d(r, 1) = Value(" Summary");
        d(r, 2) = Value(m->Key);
        termHeads(d, r, *m);
        const int meanRow = ++r, rmssRow = ++r;
        d(meanRow, 0) = Value("MEAN");
        d(rmssRow, 0) = Value("RMSS");

        // The block of this model's numbers: values in odd columns, errors in
        // even ones, MSE last.
        std::vector<double> means(static_cast<size_t>(t), 0.0), errors(static_cast<size_t>(t), 0.0);
        if (!mr.empty()) {
            const int n = static_cast<int>(mr.size());
            Datam block(n, 2 * t + 1, 0, 0);
            int row = 0;
            for (const FitRow& fr : mr) {
                ++row;
                int k = 0;
                for (const cCoefficient* c : fr.model->Coefficients) {
                    if (k >= t) break;
                    block(row, 2 * k + 1) = Value(c->Value);
                    block(row, 2 * k + 2) = Value(c->Sigma);
                    ++k;
                }
                block(row, 2 * t + 1) = Value(static_cast<double>(fr.model->MSE));
            }
            const Datam mean = mat_rcstat(block, "MEAN");
            const Datam rmss = mat_rcstat(block, "RMSS");
            for (int k = 0; k < t; ++k) {
                const Value& mv = mean.get(2 * k + 1, 1);
                const Value& ev = rmss.get(2 * k + 2, 1);
                if (!mv.isEmpty()) {
                    means[static_cast<size_t>(k)] = mv.toDouble();
                    d(meanRow, nid + 2 * k) = Value(Format(mv.toDouble(), form.numberFormat));
                }
                if (!ev.isEmpty()) {
                    errors[static_cast<size_t>(k)] = ev.toDouble();
                    d(rmssRow, nid + 2 * k + 1) = Value(Format(ev.toDouble(), form.numberFormat));
                }
            }
            const Value& mse = rmss.get(2 * t + 1, 1);
            if (!mse.isEmpty()) d(rmssRow, mseCol) = Value(Format(mse.toDouble(), form.numberFormat));
        }

        if (m == avgModel) {
            avgCoefs = Datam(t, 1, 0, 0);
            avgSigma = Datam(t, 1, 0, 0);
            avgCoefs(0, 0) = Value("Term");
            avgSigma(0, 0) = Value("Term");
            avgCoefs(0, 1) = Value(m->Key);
            avgSigma(0, 1) = Value(m->Key);
            for (int k = 1; k <= t; ++k) {
                avgCoefs(k, 0) = Value(m->Coefficients.Item(k)->NameCoef);
                avgSigma(k, 0) = Value(m->Coefficients.Item(k)->NameCoef);
                avgCoefs(k, 1) = Value(means[static_cast<size_t>(k - 1)]);
                avgSigma(k, 1) = Value(errors[static_cast<size_t>(k - 1)]);
            }
            avgEquation = AverageEquation(*m, means);
        }
    }
    return d;
}

// The models a wafer or field holds, without making a collection where
// there is none.
const Cmodel* WaferModel(const cWafer& w, const std::string& key) {
    const auto* m = dynamic_cast<const Models*>(w.Models.get());
    return m ? m->models.Item(key) : nullptr;
}

const Cmodel* FieldModel(const cField& f, const std::string& key) {
    const auto* m = dynamic_cast<const ModelsField*>(f.ModelsField.get());
    return m ? m->models.Item(key) : nullptr;
}

// Focus and dose are reported when some wafer has an exposure layout or
// some field an exposure.
bool LotHasExposures(const cLot& lot) {
    for (const cWafer* w : lot.Wafers()) {
        if (!w->Layouts.empty()) return true;
        for (const cField* f : w->Fields())
            if (f->Focus != 0 || f->Dose != 0) return true;
    }
    return false;
}

// The fitted models of every wafer (field), model by model, with the status
// text "Update model '" key "' results for " what " i of n". Escape ends the
// gathering; the report holds what was gathered.
template <class Item, class Lookup>
std::vector<std::vector<FitRow>> GatherRows(const ModelList& models, const std::vector<Item*>& items, const char* what,
                                            Lookup lookup) {
    const std::string n = std::to_string(items.size());
    std::vector<std::vector<FitRow>> rows;
    bool stopped = false;
    for (const Cmodel* m : models) {
        rows.emplace_back();
        if (stopped) continue;
        int i = 0;
        for (Item* x : items) {
            SetStatusText("Update model '" + m->Key + "' results for " + what + " " + std::to_string(++i) + " of " + n);
            if (CheckEscKey()) {
                stopped = true;
                break;
            }
            if (auto row = lookup(x, m->Key)) rows.back().push_back(*row);
        }
    }
    return rows;
}

}  // namespace

Result<Datam> ModelWafer::UpdateAverageModels(cLot& lot) {
    Proc p("ModelWafer(UpdateAverageModels): ");
    p.chk = 1;
    AvgCoefs = Datam();
    AvgSigma = Datam();
    AvgEquation.clear();
    if (models.Count() == 0) return Datam();  // nothing fitted, nothing to report

    p.chk = 2;
    std::vector<cWafer*> wafers;
    for (cWafer* w : lot.Wafers())
        if (!w->cull()) wafers.push_back(w);
    const auto rows = GatherRows(models, wafers, "wafer", [](cWafer* w, const std::string& key) {
        const Cmodel* x = WaferModel(*w, key);
        return x ? std::optional<FitRow>(FitRow{x, w, nullptr}) : std::nullopt;
    });

    p.chk = 3;
    const Cmodel* avg = Key.empty() ? nullptr : models.Item(Key);
    if (!avg) avg = models.Item(1);
    auto ident = [&lot](Datam& d, int r, const FitRow& fr) {
        d(r, 0) = Value(fr.wafer->WaferID.empty() ? fr.wafer->KeyName : fr.wafer->WaferID);
        d(r, 1) = Value(lot.GetPlotFeatureName(FitFeature(*fr.model, lot)));
        d(r, 2) = Value(static_cast<int32_t>(FitFamily(*fr.model)));
    };
    Datam report;
    if (!Guarded(p, [&] {
            report = BuildReport(models, rows, ReportForm{{"Wafer", "Feature", "Family"}, "##0.00000"}, ident, avg,
                                 AvgCoefs, AvgSigma, AvgEquation);
        }))
        return p.failure();
    return report;
}

Result<Datam> ModelField::UpdateAverageModels(cLot& lot) {
    Proc p("ModelField(UpdateAverageModels): ");
    p.chk = 1;
    AvgCoefs = Datam();
    AvgSigma = Datam();
    AvgEquation.clear();
    if (models.Count() == 0) return Datam();  // nothing fitted, nothing to report

    p.chk = 2;
    std::vector<cField*> fields;
    for (cWafer* w : lot.Wafers()) {
        if (w->cull()) continue;
        for (cField* f : w->Fields())
            if (!f->cull()) fields.push_back(f);
    }
    const auto rows = GatherRows(models, fields, "field", [](cField* f, const std::string& key) {
        const Cmodel* x = FieldModel(*f, key);
        return x ? std::optional<FitRow>(FitRow{x, f->ParentWafer(), f}) : std::nullopt;
    });

    p.chk = 3;
    const bool exposures = LotHasExposures(lot);
    auto ident = [&lot, exposures](Datam& d, int r, const FitRow& fr) {
        d(r, 0) = Value(fr.model->Key);
        d(r, 1) = Value(fr.field->NumberKey);
        d(r, 2) = Value(lot.GetPlotFeatureName(FitFeature(*fr.model, lot)));
        d(r, 3) = Value(static_cast<int32_t>(FitFamily(*fr.model)));
        if (exposures) {
            d(r, 4) = Value(Format(fr.field->Focus, "0.00"));
            d(r, 5) = Value(Format(fr.field->Dose, "0.00"));
        }
    };
    Datam report;
    if (!Guarded(p, [&] {
            report = BuildReport(models, rows,
                                 ReportForm{{"Model", "Field", "Feature", "Family", "Focus", "Dose"}, "0.000000"},
                                 ident, models.Item(1), AvgCoefs, AvgSigma, AvgEquation);
        }))
        return p.failure();
    return report;
}

}  // namespace zorv
