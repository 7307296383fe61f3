// The daily monitor run by a factory host: the command line it is given, the
// result files it must always leave, and the size control of the run log.
#pragma once

#include <string>
#include <vector>

#include "base/datam.h"
#include "base/proc.h"

namespace zorv {

// frmDM(cmdLineParse): what the switches name. Switches are found without
// regard to case ("-0" counts as "-o", "-d" as "-f", "-h" as "-w"), each where
// a word begins, so that a hyphen inside a path is no switch; a value runs to
// the next switch and loses its double quotes. Paths keep their case.
struct DMCommandLine {
    std::string dataPath, dataName;          // -f / -d
    std::string templatePath, templateName;  // -t
    std::string asciiFolder, xlsFolder, htmlFolder;  // -o, -x, -w
    std::vector<std::string> log;            // the lines the parse logs
};
// The data and template files are looked for as given, then beneath their
// folders; output folders are made. Fails with "Template file '" path "' does
// not exist." or "File file '" path "' does not exist." (so written); a line
// of fewer than 3 characters or without a switch is no command.
[[nodiscard]] Result<DMCommandLine> ParseDMCommandLine(const std::string& line, const std::string& templateFolder = {},
                                                       const std::string& dataFolder = {});

// DMAcommon(LogFileSizeControl): when the log holds more than maxLines lines,
// its oldest lines go to the backup (the name before the first "." and
// ".BAK") and the log keeps a short head and its newest minLines lines.
// A maxLines not above minLines is minLines + 150, then minLines is raised to
// at least 150.
// Answers whether the log was cut.
[[nodiscard]] Result<bool> LogFileSizeControl(const std::string& file, long minLines, long maxLines);
// The limits LogFileSizeControl takes from "DMAminLines" and "DMAmaxLines".
void LogLineLimits(long& minLines, long& maxLines);

// The result files of a run, named from the data file's base name: base
// "_ZorvDMA.csv", ".xls" (an .xlsx workbook inside, with the lot's data sheet
// and "Results"), ".html" and ".json". An existing file is replaced. With too
// few rows the files carry the fault text instead ("Fault in data ouput or
// computation", so spelled), as a host must always find a file.
struct DMResultFiles {
    std::string csv, xls, html, json;
};
struct DMOutput {
    Datam table;            // key and value columns (1, 2), rows from 1
    Datam lotData;          // the lot's data table for the workbook and web forms (header row 0)
    std::string lotName = "Data";
    std::string checkpoint;  // of a fault, for "Please see 'RemoteCall.log' file. chk: "
};
[[nodiscard]] Result<DMResultFiles> WriteDMOutput(const DMOutput& out, const std::string& dataName,
                                                  const std::string& asciiFolder, const std::string& xlsFolder,
                                                  const std::string& htmlFolder);

// frmDM(runDMoutput): the result table a host reads, "[Data]" to "[END]":
// the run's identity, the template's header rows by their rules ("TEMPLATE",
// "FOLDER", "DATAFOLDER" left out; "DATESAVED" as "DateTemplateSaved:";
// "REMOVERETICLE", "REMOVECOMPONENT" and "MODELDATA" with what follows them),
// and per statistics column every numeric statistic as "name." and value.
struct DMRunInfo {
    std::string dataFile, dataFolder, templateName, templateFolder, tool;
    double when = 0;  // date serial of the analysis
    long wafers = 0;
};
// header: keys in column 1, values in column 2 (rows from 1). stats: the
// statistics table, names in column 0 from row 1, a column per feature headed
// in row 0. Fails "Header table for analysis not found." without a header.
[[nodiscard]] Result<Datam> BuildDMResultTable(const DMRunInfo& info, const Datam& header, const Datam& stats);

}  // namespace zorv
