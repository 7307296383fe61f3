// The model collections hung on wafers, fields and the lot, and the global
// libraries: holding, cloning, finding. Reading model sheets and the reports
// are in model_sets.cpp.
#include <cstdlib>
#include <filesystem>

#include "base/identity.h"
#include "base/text.h"
#include "model/model_sets.h"

namespace zorv {

bool ModelList::Add(std::unique_ptr<Cmodel> m, const std::string& key) {
    return list_.insert(std::move(m), MakeKey(key));
}

namespace {

void CopyModels(const ModelList& from, ModelList& to) {
    for (int i = 1; i <= from.Count(); ++i) {
        Cmodel* m = from.Item(i);
        to.Add(m->clone(), m->Key);
    }
}

}  // namespace

// ---------------------------------------------------------------- per wafer, per field

std::unique_ptr<LotAttachment> Models::clone() const {
    auto c = std::make_unique<Models>();
    c->Name = Name;
    c->Comments = Comments;
    CopyModels(models, c->models);
    return c;
}

void Models::SetPlotFeature(int feature) {
    for (Cmodel* m : models) m->PlotFeature = feature;
}

std::unique_ptr<LotAttachment> ModelsField::clone() const {
    auto c = std::make_unique<ModelsField>();
    c->Name = Name;
    c->Comments = Comments;
    CopyModels(models, c->models);
    return c;
}

void ModelsField::SetPlotFeature(int feature) {
    for (Cmodel* m : models) m->PlotFeature = feature;
}

// A clone of the tree carries its attachments without their parents; they
// are set again whenever the collection is asked for.
Models& WaferModels(cWafer& w) {
    auto* m = dynamic_cast<Models*>(w.Models.get());
    if (!m) {
        w.Models = std::make_unique<Models>();
        m = static_cast<Models*>(w.Models.get());
    }
    m->parent = &w;
    for (Cmodel* x : m->models) {
        x->ParentWafer = &w;
        x->ParentField = nullptr;
    }
    return *m;
}

ModelsField& FieldModels(cField& f) {
    auto* m = dynamic_cast<ModelsField*>(f.ModelsField.get());
    if (!m) {
        f.ModelsField = std::make_unique<ModelsField>();
        m = static_cast<ModelsField*>(f.ModelsField.get());
    }
    m->parent = &f;
    for (Cmodel* x : m->models) {
        x->ParentField = &f;
        x->ParentWafer = f.ParentWafer();
    }
    return *m;
}

// ---------------------------------------------------------------- lot-wide lists

std::unique_ptr<LotAttachment> ModelWafer::clone() const {
    auto c = std::make_unique<ModelWafer>();
    CopyModels(models, c->models);
    c->Key = Key;
    c->AvgEquation = AvgEquation;
    c->AvgCoefs = AvgCoefs;
    c->AvgSigma = AvgSigma;
    return c;
}

void ModelWafer::Clear() {
    models.Clear();
    AvgEquation.clear();
    AvgCoefs = Datam();
    AvgSigma = Datam();
}

std::unique_ptr<LotAttachment> ModelField::clone() const {
    auto c = std::make_unique<ModelField>();
    CopyModels(models, c->models);
    c->AvgEquation = AvgEquation;
    c->AvgCoefs = AvgCoefs;
    c->AvgSigma = AvgSigma;
    return c;
}

void ModelField::Clear() {
    models.Clear();
    AvgEquation.clear();
    AvgCoefs = Datam();
    AvgSigma = Datam();
}

ModelWafer& LotModelWafer(cLot& lot) {
    auto* m = dynamic_cast<ModelWafer*>(lot.ModelWafer.get());
    if (!m) {
        lot.ModelWafer = std::make_unique<ModelWafer>();
        m = static_cast<ModelWafer*>(lot.ModelWafer.get());
    }
    return *m;
}

ModelField& LotModelField(cLot& lot) {
    auto* m = dynamic_cast<ModelField*>(lot.ModelField.get());
    if (!m) {
        lot.ModelField = std::make_unique<ModelField>();
        m = static_cast<ModelField*>(lot.ModelField.get());
    }
    return *m;
}

// ---------------------------------------------------------------- sets and libraries

std::unique_ptr<cModelSet> cModelSet::clone() const {
    auto s = std::make_unique<cModelSet>();
    s->NameSet = NameSet;
    s->NumberModels = NumberModels;
    s->DateCreated = DateCreated;
    s->DateModified = DateModified;
    s->NumberCalculations = NumberCalculations;
    s->Comment = Comment;
    s->Key = Key;
    CopyModels(models, s->models);
    return s;
}

cModelSet* cModelLib::Find(std::string_view name) const {
    for (cModelSet* s : list_)
        if (IEquals(s->NameSet, name)) return s;
    return nullptr;
}

void cModelLib::Add(std::unique_ptr<cModelSet> set) {
    for (int i = 1; i <= list_.Count(); ++i)
        if (IEquals(list_.at(i)->NameSet, set->NameSet)) {
            list_.take(i);
            break;
        }
    const std::string key = set->NameSet;
    list_.insert(std::move(set), MakeKey(key));
}

cModelWaferLib& WaferModelLibrary() {
    static cModelWaferLib lib;
    return lib;
}

cModelFieldLib& FieldModelLibrary() {
    static cModelFieldLib lib;
    return lib;
}

std::string ModelLibraryPath() {
    if (const char* env = std::getenv("ZORV_MODEL_LIBRARY"); env && *env) return env;
    // Beside an installed program first, then the source tree it was built from.
    namespace fs = std::filesystem;
    if (!ProgramFolder().empty()) {
        const fs::path installed = fs::path(ProgramFolder()) / "data" / "models" / "ModelLibrary.xlsx";
        std::error_code ec;
        if (fs::exists(installed, ec)) return installed.string();
    }
    return std::string(ZORV_DATA_DIR) + "/models/ModelLibrary.xlsx";
}

Status LoadGlobalModelLibraries() {
    if (WaferModelLibrary().Count() > 0 || FieldModelLibrary().Count() > 0) return StatusOk();
    return LoadModelLibraries(ModelLibraryPath(), WaferModelLibrary(), FieldModelLibrary());
}

}  // namespace zorv
