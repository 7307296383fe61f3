// The charts of the process window pipeline: the window figures on the
// process window chart (CreatePWgraphPost), the response at best focus
// against dose (DoseBFgraph) and the isofocal behaviour (GraphIsoFocal).
// Each leaves its chart complete: a caller gives it a container and calls
// DrawFigure().
#pragma once

#include <string>
#include <vector>

#include "base/datam.h"
#include "base/proc.h"
#include "procwin/pw_calculate.h"
#include "procwin/pw_geometry.h"
#include "procwin/pw_setup.h"

namespace zorv {

class cGraphic;

// The chart holds its curves by column numbers of one table: a block
// (header row 0, data from row 1, columns from 1) goes to the right of what
// the chart holds. Answers the chart column of the block's column 1, or -1
// when the block is not a table.
int PWChartAddColumns(cGraphic& chart, const Datam& block);

// The title lines as the chart shows them, blank ones dropped.
std::string PWJoinTitle(const std::vector<std::string>& lines);

// CreatePWgraphPost: on the process window chart, the window between the
// scan's top and bottom doses ("Process Area 1" and "Process Area 2"), every
// ellipse and rectangle of the ProcessWindowSpace table (the best of each
// shown, the others hidden until picked by their key) and the best ellipse's
// centre; the axes span the window. The title lines for the best figures go
// to *titleLines and the chart's title. Returns the window series table:
// "SeriesR", "SeriesEL", "Key", "Focus", "Dose", "DoF", "EL%" (header row 0),
// a row per figure; the series numbers are 1-based.
[[nodiscard]] Result<Datam> CreatePWgraphPost(const PWSetup& setup, const Datam& processWindowSpace,
                                              const PWInscribed& found, cGraphic& chart,
                                              std::vector<std::string>* titleLines = nullptr);

// DoseBFgraph (chart key "kDoseBF"): each feature at its best focus against
// dose, from a FocusResponse table (two header rows, data from row 3, as the
// sheet reads), with the best focus on the right axis. Per feature and site
// the feature is fitted against dose (order 2, order 1 where that fails);
// the best dose meets the target, the latitude lies between the doses of
// the upper and lower limits.
struct PWDoseBF {
    // "BestDose", "DoseRange", "BestFocus", "FocusRange", "Dose_%Latitude",
    // "Dose_%LatitudeRange", "DoF", "DoF_Range" (header row 0), one row.
    Datam summary;
    // "Feature" and the same columns, a row per feature.
    Datam byFeature;
    std::vector<PWSiteBest> best;  // per feature and site
};
[[nodiscard]] Result<PWDoseBF> DoseBFgraph(const PWSetup& setup, const Datam& focusResponse,
                                           cGraphic& chart,
                                           std::vector<std::string>* titleLines = nullptr);

// GraphIsoFocal: from the working table ("Serial", "Site", "Focus", "Dose",
// a column per variable of setup.variables, header row 0, sorted by site),
// per site and feature the surface fit and, per row, "Aberrated" (the
// measured value less the surface at F = 0: the focus-induced deviation),
// "Dose" and "FittedFocus" (the surface's deviation there). Per focus group
// the series "<feature>_Iso" (deviation against dose), its order-2 fit
// "<feature>_fit2", and per site and feature "<feature>_Aber", the spread of
// the deviation across focus at each dose (right axis), least at the
// isofocal dose.
struct PWIsoFocalGraph {
    Datam table;  // header row 0: "Site", "Focus", "Dose", "Feature", "Aberrated", "FittedFocus",
                  // "Measured"
    std::vector<PWIsoFocal> isoFocal;
};
[[nodiscard]] Result<PWIsoFocalGraph> GraphIsoFocal(const PWSetup& setup, const Datam& working,
                                                    cGraphic& chart,
                                                    std::vector<std::string>* titleLines = nullptr);

}  // namespace zorv
