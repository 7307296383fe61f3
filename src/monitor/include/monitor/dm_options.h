// The options of the daily monitor (frmOptionsDM): its folders, the run log
// and its size limit, the automation's notice time, and the batch lists'
// source. Kept in the settings of "Zorv Daily Monitor", where the run and the
// automation read them.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "base/proc.h"

namespace zorv {

class Workbook;

inline constexpr const char* kDMSettingsApp = "Zorv Daily Monitor";

struct DMOptions {
    // "DailyMonitor"
    std::string templateFolder;        // "TemplateSource"
    std::string dataFolder;            // "DataFolder"
    std::string reticleFolder;         // "ReticleFolder"
    std::string dataStorageDirectory;  // "DataStorageDirectory"
    bool storeInDataDirectory = true;  // "StoreInDataDirectory"
    std::string importFilter;          // "ImportFilter"
    std::string logFolder;             // "RemoteCallLogFolder"; empty: the program folder
    bool limitFileSize = false;        // "DMAlimitFileSize"
    long maxLines = -1;                // "DMAmaxLines"
    long minLines = 100;               // "DMAminLines"
    double displayTime = 60.0;         // "DMA_DisplayTime", seconds
    // "Settings"
    bool logData = false;  // "chkLogData"
    // "Batch"
    std::string batchName;    // "BatchName": the last batch sheet
    std::string batchFolder;  // "Folder": where its files were listed from
    std::string fileType = "0";  // "FileType": index of the pattern list, or a pattern typed
};

// The settings, with their defaults (folders: the program folder).
DMOptions LoadDMOptions();
// Numbers with "." as decimal separator whatever the machine's.
void SaveDMOptions(const DMOptions& options);

// A folder of the options: made when missing. One that can't be made fails
// with `label` (e.g. "The default Data Folder:") and the folder:
// "Specified in your Daily Monitor Options setup does not exist and could not
// be created." An empty folder passes.
[[nodiscard]] Status EnsureDMFolder(const std::string& label, const std::string& folder);
// Whether EnsureDMFolder would succeed, without making anything.
bool DMFolderCanBeMade(const std::string& folder);

// A file name against a pattern of the file dialogs: "*" and "?", compared
// without regard to case; several patterns separated by ";" or ","; "*.*"
// takes every name, with or without a dot.
bool MatchesFilePattern(const std::string& name, const std::string& pattern);

using BatchList = std::vector<std::pair<std::string, std::string>>;  // file, folder

// cmdBatchGetFile: the files of a folder that match the pattern, sorted by
// name. An empty or missing folder fails "Please specify a data folder.".
[[nodiscard]] Result<BatchList> ListBatchFiles(const std::string& folder, const std::string& pattern = "*.*");

// The rows of a batch sheet: below the cell "File", the names, and the
// folders one column right, to the first empty name.
BatchList ReadBatchSheet(Workbook& workbook, const std::string& sheet);

}  // namespace zorv
