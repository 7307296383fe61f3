// Charts written to files: the same drawing routine on an image, an SVG or a
// PDF page.
#pragma once

#include <functional>
#include <string>

#include "base/proc.h"
#include "graphics/surface.h"

namespace zorv {

// Draws a width x height pixel chart into path, the type chosen by the
// extension (any case): .png (white background, 8-bit ARGB), .svg, or .pdf
// (one page the chart's size at 96 dots an inch). The file is written beside
// the target under a temporary name and moved into place only when complete,
// so a failure never leaves a partial or truncated chart behind. Failures:
// "Unknown chart file type: " and the extension; a file that cannot be
// written (Failure.file is the path).
Status RenderToFile(const std::string& path, int width, int height, const std::function<void(Surface&)>& draw);

// Fonts and painting need a QGuiApplication: makes one when there is none,
// on the offscreen platform when no display is set. Idempotent; call it from
// the main thread before drawing.
void EnsureGuiApplication();

}  // namespace zorv
