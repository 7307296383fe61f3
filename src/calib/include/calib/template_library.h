// The focus-calibration template library: cTemplateLibrary holds the
// cTemplate objects, each the stored result of one PSFM calibration (the focus
// polynomials of every site and exposure set, cSiteCal, and the row and column
// best focus tables, cBestFocus with cCalRow / cCalColumn).
//
// All templates live in one UTF-16 text file, ZORVpsfm.tpl, in the folder
// TemplateFolder(). The writer writes format version 3; the reader takes 1, 2
// and 3. Orders 5 and 6 of the polynomials have no place in the file.
//
// Templates are shared (std::shared_ptr): a workbench holds the one it works
// on while the library holds the stored ones; Update() swaps the caller's
// reference onto the stored object.
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "base/datam.h"
#include "base/proc.h"

namespace zorv {

class cLot;
class cTemplate;
class cTemplateLibrary;
class cBestFocus;

// An ordered collection with optional case-insensitive keys (1-based
// positions). Add with an empty key adds without a key; Add under a key that
// is held replaces that element in place, so one element stays per key.
template <class T>
class CalCollection {
    struct Entry {
        std::unique_ptr<T> obj;
        std::string key;
    };

public:
    int Count() const { return static_cast<int>(items_.size()); }
    T* Item(int pos) const { return pos >= 1 && pos <= Count() ? items_[pos - 1].obj.get() : nullptr; }
    T* Item(std::string_view key) const;
    T* Item(const char* key) const { return Item(std::string_view(key)); }
    T* Item(const std::string& key) const { return Item(std::string_view(key)); }
    T* Add(std::unique_ptr<T> obj, std::string_view key = {});
    std::unique_ptr<T> Remove(int pos);
    std::unique_ptr<T> Remove(std::string_view key);
    void Clear() {
        items_.clear();
        index_.clear();
    }
    const std::string& KeyAt(int pos) const { return items_[pos - 1].key; }

    class iterator {
    public:
        using value_type = T*;
        using difference_type = std::ptrdiff_t;
        iterator() = default;
        explicit iterator(const Entry* e) : e_(e) {}
        T* operator*() const { return e_->obj.get(); }
        iterator& operator++() { ++e_; return *this; }
        iterator operator++(int) { iterator t = *this; ++e_; return t; }
        bool operator==(const iterator& o) const { return e_ == o.e_; }

    private:
        const Entry* e_ = nullptr;
    };
    // NewEnum
    iterator begin() const { return iterator(items_.data()); }
    iterator end() const { return iterator(items_.data() + items_.size()); }

private:
    void reindex();
    std::vector<Entry> items_;
    std::unordered_map<std::string, size_t> index_;  // upper-case key -> 0-based position
};

// One site and exposure set of a calibration. X is the vertical feature (a
// point's ValueV), Y the horizontal one (ValueH). Focus = sum of coefficient
// times image shift to the power; the se values are standard errors.
class cSiteCal {
public:
    long Number = 0;
    std::string NumberKey;  // site_dose_NA_PCinner_PCouter, as "39_19_0.75_0_0"
    float Dose = 0, NA = 0, PCinner = 0, PCouter = 0;
    float LocationX = 0, LocationY = 0;  // micrometres in the field, site offsets added
    float OffsetX = 0, OffsetXse = 0, OffsetY = 0, OffsetYse = 0;
    float SlopeX = 0, SlopeXse = 0, SlopeY = 0, SlopeYse = 0;
    float X2nd = 0, X2ndSE = 0, Y2nd = 0, Y2ndSE = 0;
    float X3rd = 0, X3rdSE = 0, Y3rd = 0, Y3rdSE = 0;
    float X4th = 0, X4thSE = 0, Y4th = 0, Y4thSE = 0;
    // Not stored in the library file: kept only until the template is reloaded.
    float X5th = 0, X5thSE = 0, Y5th = 0, Y5thSE = 0;
    float X6th = 0, X6thSE = 0, Y6th = 0, Y6thSE = 0;
    cTemplate* parent = nullptr;

    // The digits before the first "_" of NumberKey into Number.
    void GetNumber();
};

// One row or column of a best focus analysis (micrometres of focus; Location
// in millimetres).
struct cCalLine {
    std::string KeyName;
    float Location = 0, Piston = 0, PistonSE = 0, Tilt = 0, TiltSE = 0, Curvature = 0, CurvatureSE = 0,
          IFDresidulaseSE = 0;
    cBestFocus* parent = nullptr;
};
struct cCalRow : cCalLine {};
struct cCalColumn : cCalLine {};

class cBestFocus {
public:
    std::string KeyName;  // Dose_NA_PCinner_PCouter
    float Dose = 0, NA = 0, PCinner = 0, PCouter = 0;
    CalCollection<cCalRow> CalRows;
    CalCollection<cCalColumn> CalColumns;
    cTemplate* parent = nullptr;

    // KeyName from the four values, each as a plain single.
    static std::string MakeKeyName(float dose, float na, float pcInner, float pcOuter);

    // The element whose Location equals row.Location as "0.00" text takes all
    // the fields of `row`; with none, a copy is added under row.KeyName.
    cCalRow* UpdateRowData(const cCalRow& row);
    cCalColumn* UpdateColData(const cCalColumn& col);
    // 0-based tables: header row, then Location, Piston, PistonSE, Tilt,
    // TiltSE, Curvature, CurvatureSE, IFDresidulaseSE per element.
    Datam GetRowData() const;
    Datam GetColData() const;

    std::unique_ptr<cBestFocus> clone() const;
};

class cTemplate : public std::enable_shared_from_this<cTemplate> {
public:
    cTemplate();
    cTemplate(const cTemplate&) = delete;
    cTemplate& operator=(const cTemplate&) = delete;

    // persistent, in file order
    float Version = 3;
    std::string NameTemplate;
    std::string Comment;  // lines joined by CR LF
    std::string DataSetName;
    double DateCreated = 0, DateModified = 0;  // date serials
    std::string ReticleName;
    long TemplateType = 0;
    CalCollection<cSiteCal> sites;  // keyed by NumberKey
    CalCollection<cBestFocus> BestFocusSets;

    // in memory only
    float DieSizeX = 0, DieSizeY = 0;  // micrometres, from FindFieldSize
    cTemplateLibrary* parent = nullptr;
    float CalID() const { return calID_; }

    // Adds under its NumberKey, sets Number and parent.
    cSiteCal* AddSite(std::unique_ptr<cSiteCal> site);
    // A numeric key looks up Number, any other the exact NumberKey; a new site
    // is added under the key when nothing matches.
    cSiteCal* GetSite(std::string_view key);
    // KeyName from the set's values; added under `key` (none when empty). A
    // null set is created.
    cBestFocus* AddBestFocus(std::unique_ptr<cBestFocus> set, std::string_view key = {});
    // NA, PCinner, PCouter and Dose compared as "####0.000" text; a dose of 0
    // or less matches any. A new set, values rounded through that format, is
    // added under its KeyName when none matches.
    cBestFocus* GetBestFocus(float na, float pcInner, float pcOuter, float dose);
    // Rows 1..count of the distinct exposure sets (rounded to 3 decimals):
    // index, Dose, NA, PCinner, PCouter, BestFocus (1 when a best focus set
    // lies within 0.01 in all four). Row 0 is the header.
    Datam GetUniqueExposures(int& count) const;
    // Field extent in millimetres (span of the site locations + 10, one
    // decimal); DieSizeX/Y get the same in micrometres.
    void FindFieldSize(float& x, float& y);
    // A display lot: one wafer "1", one field per exposure set, one site and
    // point per cSiteCal (values the offsets x 1000, fits the slopes).
    std::shared_ptr<cLot> GetLot();
    // Deep copy with a new CalID, the version of a new object and DateModified now.
    std::shared_ptr<cTemplate> clone() const;
    // Stores the template in `lib` (else its parent, else the process-wide
    // library when it exists) and saves the library. An empty name takes the
    // current one, then currentLotName. True when the library was saved; false
    // when there was no name or no library.
    [[nodiscard]] Result<bool> SaveTemplate(std::string name, cTemplateLibrary* lib = nullptr,
                                            const std::string& currentLotName = {});

private:
    friend class cTemplateLibrary;
    float calID_ = 0;
};

class cTemplateLibrary {
public:
    // An empty folder means TemplateFolder().
    explicit cTemplateLibrary(std::string folder = {}) : folder_(std::move(folder)) {}
    cTemplateLibrary(const cTemplateLibrary&) = delete;
    cTemplateLibrary& operator=(const cTemplateLibrary&) = delete;
    ~cTemplateLibrary();

    // The templates in file order.
    const std::vector<std::shared_ptr<cTemplate>>& Templates() const { return templates_; }
    int Count() const { return static_cast<int>(templates_.size()); }

    std::string Folder() const;
    std::string FilePath() const;    // .../ZORVpsfm.tpl
    std::string BackupPath() const;  // .../ZORVpsfm.stp

    // Case-insensitive; the template's NameTemplate becomes the name asked.
    std::shared_ptr<cTemplate> GetTemplate(std::string_view name);
    // Case-sensitive on purpose: a template of exactly that name blocks the add.
    // NameTemplate becomes the name (the template's own when empty) either way.
    void AddTemplate(std::shared_ptr<cTemplate> t, std::string_view name = {});
    // Adds a new template, or copies the descriptive fields onto the stored one
    // (and hands over the sites and best focus sets of another calibration);
    // `t` then points at the stored object.
    void Update(std::shared_ptr<cTemplate>& t);
    // 1 when removed, -1 otherwise. Not silent: asks Yes/No first.
    int Remove(std::string_view name, bool silent);
    // Drops every template (their parent links too).
    void Clear();

    // Writes ZORVpsfm.tpl (version 3), keeping the previous one as ZORVpsfm.stp.
    [[nodiscard]] Status FileSave();
    // Reads ZORVpsfm.tpl; a missing folder or file leaves the library as it is.
    // A malformed file keeps the templates read before the failure.
    [[nodiscard]] Status FileGet();
    // The reading part of FileGet on the bytes of a library file: replaces the
    // templates held (once the version and total lines have read) and leaves
    // the settings alone. `source` names the file in a failure, whose text
    // ends with the file and line.
    [[nodiscard]] Status ReadLibraryBytes(const std::string& bytes, const std::string& source);

    // The library file as text lines (without line ends), version 3.
    std::vector<std::string> FileLines() const;

private:
    void refreshSettings();
    std::string folder_;
    std::vector<std::shared_ptr<cTemplate>> templates_;
};

// The folder of the library: `overridePath` when given; else "Templates"
// beside the program when that can be written; else "Templates" under the
// user's data folder ($XDG_DATA_HOME/zorv or ~/.local/share/zorv).
std::string TemplateFolder(const std::string& overridePath = {});

// The library file name and its backup.
inline constexpr const char* kTemplateFileName = "ZORVpsfm.tpl";
inline constexpr const char* kTemplateBackupName = "ZORVpsfm.stp";

// A line list as the library file stores it: UTF-16 LE with a byte order
// mark, each line ended by CR LF; and back (either byte order, or 8-bit text
// without a mark; lines split at CR LF, LF or CR).
std::string EncodeTemplateFile(const std::vector<std::string>& lines);
std::vector<std::string> DecodeTemplateFile(const std::string& bytes);

// The shortest text of a single that reads back to the same single ("0.75",
// "-6.91", "2.809E-02" style for small values).
std::string TemplateNumberText(float v);
// A date serial as the library file writes it (the short date, with the time
// when it has one).
std::string TemplateDateText(double serial);

// frmAnalysis(CreateTemplateBase): the 55 lines of the sample template, with
// `today` (a date serial) as its DateModified.
std::vector<std::string> SampleTemplateLines(double today);
// Writes the sample as a fresh library file into `folder` (made when missing,
// an existing file deleted).
[[nodiscard]] Status CreateTemplateBase(const std::string& folder);

// The process-wide library, created on first need (folder TemplateFolder());
// the exit path releases it.
cTemplateLibrary& TemplateLibrary();
bool TemplateLibraryExists();

// Date serial of now, local time.
double TemplateNow();

}  // namespace zorv
