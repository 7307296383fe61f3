// Utility(LoadResStrings): captions of a window's controls from the string
// table. A control whose text (or dynamic property "tag") is a number takes
// string that number; any other text stays.
#pragma once

class QWidget;

namespace zorv::ui {

// Walks the window's controls: labels, buttons, group boxes, menus and their
// actions, tab captions, tool button tips, list and combo items, table and
// tree headers, status bar panels. Picture boxes (names "pct...") take their
// background from section "DisplayBackground". Returns the number of texts
// replaced.
int LoadResStrings(QWidget* window);

}  // namespace zorv::ui
