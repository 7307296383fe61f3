// The template objects and the library's in-memory operations. The file, the
// folder and the sample template are in template_file.cpp.
#include "calib/template_library.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <ctime>
#include <random>

#include "app/shutdown.h"
#include "base/format.h"
#include "base/regional.h"
#include "base/report.h"
#include "base/text.h"
#include "base/value.h"
#include "graphics/chart.h"
#include "lot/lot.h"

namespace zorv {

// ---- collections ----

template <class T>
T* CalCollection<T>::Item(std::string_view key) const {
    if (key.empty()) return nullptr;
    auto it = index_.find(Upper(key));
    return it == index_.end() ? nullptr : items_[it->second].obj.get();
}

template <class T>
T* CalCollection<T>::Add(std::unique_ptr<T> obj, std::string_view key) {
    if (!obj) obj = std::make_unique<T>();
    T* raw = obj.get();
    if (!key.empty()) {
        const std::string up = Upper(key);
        if (auto it = index_.find(up); it != index_.end()) {
            // One element per key: the newer one takes the place of the held one.
            items_[it->second].obj = std::move(obj);
            return raw;
        }
        index_.emplace(up, items_.size());
    }
    items_.push_back(Entry{std::move(obj), std::string(key)});
    return raw;
}

template <class T>
std::unique_ptr<T> CalCollection<T>::Remove(int pos) {
    if (pos < 1 || pos > Count()) return nullptr;
    std::unique_ptr<T> out = std::move(items_[pos - 1].obj);
    items_.erase(items_.begin() + (pos - 1));
    reindex();
    return out;
}

template <class T>
std::unique_ptr<T> CalCollection<T>::Remove(std::string_view key) {
    auto it = index_.find(Upper(key));
    if (key.empty() || it == index_.end()) return nullptr;
    return Remove(static_cast<int>(it->second) + 1);
}

template <class T>
void CalCollection<T>::reindex() {
    index_.clear();
    for (size_t i = 0; i < items_.size(); ++i)
        if (!items_[i].key.empty()) index_.emplace(Upper(items_[i].key), i);
}

template class CalCollection<cSiteCal>;
template class CalCollection<cBestFocus>;
template class CalCollection<cCalRow>;
template class CalCollection<cCalColumn>;
template class CalCollection<cGraphic>;  // the calibration's charts

// ---- helpers ----

namespace {

std::string F3(float v) { return Format(v, "####0.000"); }

float Round3(float v) {
    double d = 0;
    ParseNumber(Format(v, "0.000"), d);
    return static_cast<float>(d);
}

// A CalID: time of day, a random number and the date as one single. Singles
// near today's serial are 1/256 apart, so values are kept rising within the
// process: two objects never share one by accident.
float NewCalID() {
    static std::mt19937 rng(static_cast<unsigned>(std::chrono::steady_clock::now().time_since_epoch().count()));
    static float last = 0;
    const double now = TemplateNow();
    const double timer = (now - std::floor(now)) * 86400.0;
    const double rnd = std::uniform_real_distribution<double>(0.0, 1.0)(rng);
    float v = static_cast<float>(std::floor(now) + std::fmod(timer * rnd, 1.0));
    if (v <= last) v = std::nextafter(last, 1e30f);
    last = v;
    return v;
}

template <class L>
std::unique_ptr<L> CopyLine(const L& src) {
    auto c = std::make_unique<L>();
    static_cast<cCalLine&>(*c) = static_cast<const cCalLine&>(src);
    c->parent = nullptr;
    return c;
}

template <class L>
L* UpdateLine(CalCollection<L>& list, const L& given, cBestFocus* parent) {
    const std::string loc = Format(given.Location, "0.00");
    for (L* e : list)
        if (Format(e->Location, "0.00") == loc) {
            static_cast<cCalLine&>(*e) = static_cast<const cCalLine&>(given);
            e->parent = parent;
            return e;
        }
    auto c = CopyLine(given);
    c->parent = parent;
    return list.Add(std::move(c), given.KeyName);
}

template <class L>
Datam LineTable(const CalCollection<L>& list, const char* first) {
    Datam d(list.Count(), 7, 0, 0);
    const char* head[] = {first, "Focus (um)", "FocusSE (um)", "Tilt(urad)", "TiltSE(urad)", "Curv(um/cm2)",
                          "CurvSE(um/cm2)", "IFDresidualsSE(um)"};
    for (int c = 0; c < 8; ++c) d(0, c) = Value(std::string(head[c]));
    int r = 0;
    for (const L* e : list) {
        ++r;
        const float v[] = {e->Location, e->Piston, e->PistonSE, e->Tilt, e->TiltSE, e->Curvature, e->CurvatureSE,
                           e->IFDresidulaseSE};
        for (int c = 0; c < 8; ++c) d(r, c) = Value(v[c]);
    }
    return d;
}

}  // namespace

double TemplateNow() { return NowSerial(); }

// ---- cSiteCal ----

void cSiteCal::GetNumber() {
    const std::string head = NumberKey.substr(0, NumberKey.find('_'));
    size_t i = 0;
    while (i < head.size() && head[i] == ' ') ++i;
    size_t j = i;
    if (j < head.size() && (head[j] == '-' || head[j] == '+')) ++j;
    while (j < head.size() && head[j] >= '0' && head[j] <= '9') ++j;
    Number = std::strtol(head.substr(i, j - i).c_str(), nullptr, 10);
}

// ---- cBestFocus ----

std::string cBestFocus::MakeKeyName(float dose, float na, float pcInner, float pcOuter) {
    return CStrNumber(dose, 7) + "_" + CStrNumber(na, 7) + "_" + CStrNumber(pcInner, 7) + "_" +
           CStrNumber(pcOuter, 7);
}

cCalRow* cBestFocus::UpdateRowData(const cCalRow& row) { return UpdateLine(CalRows, row, this); }
cCalColumn* cBestFocus::UpdateColData(const cCalColumn& col) { return UpdateLine(CalColumns, col, this); }
Datam cBestFocus::GetRowData() const { return LineTable(CalRows, "Row (mm)"); }
Datam cBestFocus::GetColData() const { return LineTable(CalColumns, "Column (mm)"); }

std::unique_ptr<cBestFocus> cBestFocus::clone() const {
    auto c = std::make_unique<cBestFocus>();
    c->KeyName = KeyName;
    c->Dose = Dose;
    c->NA = NA;
    c->PCinner = PCinner;
    c->PCouter = PCouter;
    for (int i = 1; i <= CalRows.Count(); ++i) {
        auto r = CopyLine(*CalRows.Item(i));
        r->parent = c.get();
        c->CalRows.Add(std::move(r), CalRows.KeyAt(i));
    }
    for (int i = 1; i <= CalColumns.Count(); ++i) {
        auto r = CopyLine(*CalColumns.Item(i));
        r->parent = c.get();
        c->CalColumns.Add(std::move(r), CalColumns.KeyAt(i));
    }
    return c;
}

// ---- cTemplate ----

cTemplate::cTemplate() : calID_(NewCalID()) {}

cSiteCal* cTemplate::AddSite(std::unique_ptr<cSiteCal> site) {
    if (!site) site = std::make_unique<cSiteCal>();
    site->GetNumber();
    site->parent = this;
    const std::string key = site->NumberKey;
    return sites.Add(std::move(site), key);
}

cSiteCal* cTemplate::GetSite(std::string_view key) {
    double n = 0;
    if (ParseNumber(Trim(key), n)) {
        for (cSiteCal* s : sites)
            if (static_cast<double>(s->Number) == n) return s;
    } else {
        for (cSiteCal* s : sites)
            if (s->NumberKey == key) return s;
    }
    auto s = std::make_unique<cSiteCal>();
    s->NumberKey = std::string(key);
    return AddSite(std::move(s));
}

cBestFocus* cTemplate::AddBestFocus(std::unique_ptr<cBestFocus> set, std::string_view key) {
    if (!set) set = std::make_unique<cBestFocus>();
    set->KeyName = cBestFocus::MakeKeyName(set->Dose, set->NA, set->PCinner, set->PCouter);
    set->parent = this;
    return BestFocusSets.Add(std::move(set), key);
}

cBestFocus* cTemplate::GetBestFocus(float na, float pcInner, float pcOuter, float dose) {
    const std::string tNA = F3(na), tIn = F3(pcInner), tOut = F3(pcOuter), tDose = F3(dose);
    for (cBestFocus* b : BestFocusSets)
        if (F3(b->NA) == tNA && F3(b->PCinner) == tIn && F3(b->PCouter) == tOut &&
            (dose <= 0 || F3(b->Dose) == tDose))
            return b;
    auto b = std::make_unique<cBestFocus>();
    auto back = [](const std::string& t) {
        double d = 0;
        ParseNumber(Trim(t), d);
        return static_cast<float>(d);
    };
    b->Dose = back(tDose);
    b->NA = back(tNA);
    b->PCinner = back(tIn);
    b->PCouter = back(tOut);
    b->KeyName = cBestFocus::MakeKeyName(b->Dose, b->NA, b->PCinner, b->PCouter);
    b->parent = this;
    const std::string key = b->KeyName;
    return BestFocusSets.Add(std::move(b), key);
}

Datam cTemplate::GetUniqueExposures(int& count) const {
    struct Exp {
        float dose, na, in, out;
    };
    std::vector<Exp> ex;
    for (const cSiteCal* s : sites) {
        Exp e{Round3(s->Dose), Round3(s->NA), Round3(s->PCinner), Round3(s->PCouter)};
        bool seen = false;
        for (const Exp& o : ex)
            if (o.dose == e.dose && o.na == e.na && o.in == e.in && o.out == e.out) seen = true;
        if (!seen) ex.push_back(e);
    }
    count = static_cast<int>(ex.size());
    Datam d(count, 5, 0, 0);
    const char* head[] = {"  ", "Dose", "NA", "PCinnter", "PCouter", "BestFocus"};
    for (int c = 0; c < 6; ++c) d(0, c) = Value(std::string(head[c]));
    for (int i = 0; i < count; ++i) {
        const Exp& e = ex[i];
        int found = 0;
        for (const cBestFocus* b : BestFocusSets)
            if (std::fabs(b->Dose - e.dose) < 0.01f && std::fabs(b->NA - e.na) < 0.01f &&
                std::fabs(b->PCinner - e.in) < 0.01f && std::fabs(b->PCouter - e.out) < 0.01f)
                found = 1;
        d(i + 1, 0) = Value(static_cast<int32_t>(i + 1));
        d(i + 1, 1) = Value(e.dose);
        d(i + 1, 2) = Value(e.na);
        d(i + 1, 3) = Value(e.in);
        d(i + 1, 4) = Value(e.out);
        d(i + 1, 5) = Value(static_cast<int32_t>(found));
    }
    return d;
}

void cTemplate::FindFieldSize(float& x, float& y) {
    float xmin = 0, xmax = 0, ymin = 0, ymax = 0;
    bool first = true;
    for (const cSiteCal* s : sites) {
        if (first) {
            xmin = xmax = s->LocationX;
            ymin = ymax = s->LocationY;
            first = false;
        }
        xmin = std::min(xmin, s->LocationX);
        xmax = std::max(xmax, s->LocationX);
        ymin = std::min(ymin, s->LocationY);
        ymax = std::max(ymax, s->LocationY);
    }
    auto round1 = [](double v) {
        double d = 0;
        ParseNumber(Format(v, "0.0"), d);
        return static_cast<float>(d);
    };
    x = round1((static_cast<double>(xmax) - xmin) / 1000.0 + 10.0);
    y = round1((static_cast<double>(ymax) - ymin) / 1000.0 + 10.0);
    DieSizeX = x * 1000;
    DieSizeY = y * 1000;
}

std::shared_ptr<cLot> cTemplate::GetLot() {
    auto lot = cLot::create();
    float fx = 0, fy = 0;
    FindFieldSize(fx, fy);
    lot->WaferSize = 200;
    lot->valueZ_Name = "Mean";
    lot->LotName = NameTemplate;
    lot->FileName = DataSetName;
    lot->ReticleName = Value(ReticleName);
    lot->DateMeasured = TemplateDateText(DateCreated);
    lot->ProcessDate = DateModified;
    lot->DieSizeX = fx * 1000;
    lot->DieSizeY = fy * 1000;

    int count = 0;
    const Datam ex = GetUniqueExposures(count);
    cWafer* w = lot->Wafers().Add(nullptr, "1");
    for (int n = 1; n <= count; ++n) {
        auto f = std::make_unique<cField>();
        f->DieX = static_cast<float>(n - 2);
        f->DieY = 0;
        f->Number = n;
        f->Dose = ex(n, 1).toSingle();
        f->NA = ex(n, 2).toSingle();
        f->PCinner = ex(n, 3).toSingle();
        f->PCouter = ex(n, 4).toSingle();
        f->Focus = 0;
        cField* field = w->Fields().Add(std::move(f), "W" + w->KeyName + "F" + std::to_string(n));
        for (const cSiteCal* s : sites) {
            if (Round3(s->Dose) != field->Dose || Round3(s->NA) != field->NA || Round3(s->PCinner) != field->PCinner ||
                Round3(s->PCouter) != field->PCouter)
                continue;
            Ref<cSite> site = cSite::New();
            site->setNumberKey(static_cast<int32_t>(s->Number));
            site->LocationX = s->LocationX;
            site->LocationY = s->LocationY;
            site->setParent(field);
            field->sites().Add(site, std::to_string(field->sites().Count() + 1));
            auto p = std::make_unique<cPoint>();
            p->ValueH = 1000 * s->OffsetY;
            p->ValueV = 1000 * s->OffsetX;
            p->ValueZ = (p->ValueH + p->ValueV) / 2;
            p->ValueH_fit = s->SlopeY;
            p->ValueV_fit = s->SlopeX;
            p->ValueZ_fit = (std::fabs(s->SlopeX) + std::fabs(s->SlopeY)) / 2;
            field->AddPoint(site, std::move(p));
        }
    }
    // CalcSiteStep: the smallest spacing of the site grid.
    std::vector<float> xs, ys;
    for (const cSiteCal* s : sites) {
        xs.push_back(s->LocationX);
        ys.push_back(s->LocationY);
    }
    auto step = [](std::vector<float>& v) {
        std::sort(v.begin(), v.end());
        float best = 0;
        for (size_t i = 1; i < v.size(); ++i) {
            const float d = v[i] - v[i - 1];
            if (d > 0.5f && (best == 0 || d < best)) best = d;
        }
        return best;
    };
    if (sites.Count() > 1) {
        lot->SiteStepX = step(xs);
        lot->SiteStepy = step(ys);
    }
    return lot;
}

std::shared_ptr<cTemplate> cTemplate::clone() const {
    auto c = std::make_shared<cTemplate>();  // new CalID, Version 3
    c->NameTemplate = NameTemplate;
    c->Comment = Comment;
    c->DataSetName = DataSetName;
    c->DateCreated = DateCreated;
    c->DateModified = TemplateNow();
    c->ReticleName = ReticleName;
    c->TemplateType = TemplateType;
    c->DieSizeX = DieSizeX;
    c->DieSizeY = DieSizeY;
    for (int i = 1; i <= sites.Count(); ++i) {
        auto s = std::make_unique<cSiteCal>(*sites.Item(i));
        s->parent = c.get();
        c->sites.Add(std::move(s), sites.KeyAt(i));
    }
    for (int i = 1; i <= BestFocusSets.Count(); ++i) {
        auto b = BestFocusSets.Item(i)->clone();
        b->parent = c.get();
        c->BestFocusSets.Add(std::move(b), BestFocusSets.KeyAt(i));
    }
    return c;
}

Result<bool> cTemplate::SaveTemplate(std::string name, cTemplateLibrary* lib, const std::string& currentLotName) {
    Proc p("cTemplate(Save): ");
    p.chk = 1;
    if (name.empty()) name = NameTemplate;
    if (name.empty()) name = currentLotName;
    bool saved = false;
    if (!name.empty()) {
        p.chk = 2;
        TemplateType = 0;
        DateModified = TemplateNow();
        NameTemplate = name;
        if (!lib) lib = parent;
        if (!lib && TemplateLibraryExists()) lib = &TemplateLibrary();
        if (lib) {
            p.chk = 3;
            SetStatusText("Update template interface....");
            // A template held through a shared_ptr is stored as itself; one
            // held otherwise (on a stack) is stored as a copy.
            std::shared_ptr<cTemplate> self = weak_from_this().lock();
            if (!self) self = std::shared_ptr<cTemplate>(std::shared_ptr<cTemplate>{}, this);
            lib->Update(self);
            p.chk = 4;
            SetStatusText("Save Template Library with entry for: " + name);
            Status st = lib->FileSave();
            if (!st.ok()) {
                SetStatusText("");
                Failure f = st.failure();
                f.tag = p.tag();
                f.chk = p.chk;
                p.quiet();
                return f;
            }
            saved = true;
        }
    }
    SetStatusText("");
    return saved;
}

// ---- cTemplateLibrary ----

cTemplateLibrary::~cTemplateLibrary() { Clear(); }

void cTemplateLibrary::Clear() {
    for (auto& t : templates_)
        if (t->parent == this) t->parent = nullptr;
    templates_.clear();
}

std::shared_ptr<cTemplate> cTemplateLibrary::GetTemplate(std::string_view name) {
    for (auto& t : templates_)
        if (IEquals(t->NameTemplate, name)) {
            t->NameTemplate = std::string(name);
            return t;
        }
    return nullptr;
}

void cTemplateLibrary::AddTemplate(std::shared_ptr<cTemplate> t, std::string_view name) {
    if (!t) return;
    const std::string key = name.empty() ? t->NameTemplate : std::string(name);
    bool held = false;
    for (const auto& o : templates_)
        if (o->NameTemplate == key) held = true;
    if (!held) {
        t->parent = this;
        templates_.push_back(t);
    }
    t->NameTemplate = key;
}

void cTemplateLibrary::Update(std::shared_ptr<cTemplate>& t) {
    if (!t) return;
    std::shared_ptr<cTemplate> stored;
    for (auto& o : templates_)
        if (IEquals(o->NameTemplate, t->NameTemplate)) {
            stored = o;
            break;
        }
    if (!stored) {
        // The caller's object may be one it does not own through a shared_ptr
        // (SaveTemplate on itself); the library keeps a copy of it then.
        if (t.use_count() == 0) {
            auto c = t->clone();
            c->calID_ = t->calID_;
            c->DateModified = t->DateModified;
            c->Version = t->Version;
            t->sites.Clear();
            t->BestFocusSets.Clear();
            t = c;
        }
        t->parent = this;
        t->DateCreated = TemplateNow();
        templates_.push_back(t);
        return;
    }
    if (stored == t) return;
    stored->Comment = t->Comment;
    stored->DataSetName = t->DataSetName;
    stored->DateModified = t->DateModified;
    stored->NameTemplate = t->NameTemplate;
    stored->ReticleName = t->ReticleName;
    stored->TemplateType = t->TemplateType;
    stored->DieSizeX = t->DieSizeX;
    stored->DieSizeY = t->DieSizeY;
    if (stored->calID_ != t->calID_) {
        stored->sites.Clear();
        stored->BestFocusSets.Clear();
        std::swap(stored->sites, t->sites);
        std::swap(stored->BestFocusSets, t->BestFocusSets);
        for (cSiteCal* s : stored->sites) s->parent = stored.get();
        for (cBestFocus* b : stored->BestFocusSets) b->parent = stored.get();
    }
    t = stored;
}

int cTemplateLibrary::Remove(std::string_view name, bool silent) {
    const std::string up = Upper(name);
    const std::string question = "Are you sure you wish to remove template: " + up;
    auto it = std::find_if(templates_.begin(), templates_.end(),
                           [&](const auto& t) { return IEquals(t->NameTemplate, up); });
    if (it == templates_.end()) {
        SetStatusText(question);
        return -1;
    }
    if (!silent && MsgBox(question, vbYesNo | vbQuestion, "Zorving Calibration Templates") != vbYes) return -1;
    if ((*it)->parent == this) (*it)->parent = nullptr;
    templates_.erase(it);
    return 1;
}

// ---- the process-wide library ----

namespace {
std::unique_ptr<cTemplateLibrary>& GlobalLibrary() {
    static std::unique_ptr<cTemplateLibrary> lib;
    return lib;
}
}  // namespace

cTemplateLibrary& TemplateLibrary() {
    auto& lib = GlobalLibrary();
    if (!lib) {
        lib = std::make_unique<cTemplateLibrary>();
        SetTemplateLibraryRelease([](bool dropLibrary) {
            auto& l = GlobalLibrary();
            if (!l) return;
            l->Clear();
            if (dropLibrary) l.reset();
        });
    }
    return *lib;
}

bool TemplateLibraryExists() { return GlobalLibrary() != nullptr; }

}  // namespace zorv
