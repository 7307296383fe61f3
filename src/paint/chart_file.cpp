#include "paint/chart_file.h"

#include <QFile>
#include <QGuiApplication>
#include <QImage>
#include <QImageWriter>
#include <QPageSize>
#include <QPainter>
#include <QPdfWriter>
#include <QSvgGenerator>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <filesystem>
#include <system_error>

#include "paint/qpainter_surface.h"

namespace zorv {

namespace fs = std::filesystem;

namespace {

enum class ChartType { Png, Svg, Pdf };

// The temporary file goes when the chart did not make it into place.
struct TempFile {
    fs::path path;
    bool keep = false;
    ~TempFile() {
        if (keep || path.empty()) return;
        std::error_code ec;
        fs::remove(path, ec);
    }
};

Failure CannotWrite(Proc& p, const std::string& path, const std::string& why) {
    Failure f = p.fail("Cannot write the chart file " + path + (why.empty() ? "" : ": " + why));
    f.file = path;
    return f;
}

// Draws into a painter already begun on its device, the chart filling the
// painter's window whatever the device's rounding of its size.
bool DrawOn(Proc& p, QPainter& painter, int width, int height, const std::function<void(Surface&)>& draw) {
    painter.setWindow(0, 0, width, height);
    QPainterSurface surface(painter, width, height);
    const bool ok = Guarded(p, [&] { draw(surface); });
    painter.end();
    return ok;
}

}  // namespace

void EnsureGuiApplication() {
    if (QCoreApplication::instance()) return;
    if (!qEnvironmentVariableIsSet("QT_QPA_PLATFORM") && qEnvironmentVariableIsEmpty("DISPLAY") &&
        qEnvironmentVariableIsEmpty("WAYLAND_DISPLAY"))
        qputenv("QT_QPA_PLATFORM", "offscreen");
    // A headless run (a factory host, a CI job) often has no runtime folder;
    // Qt would make one and warn about it on every chart.
    if (qEnvironmentVariableIsEmpty("XDG_RUNTIME_DIR")) {
        const fs::path dir = fs::temp_directory_path() / ("zorv-runtime-" + std::to_string(getuid()));
        std::error_code ec;
        fs::create_directories(dir, ec);
        fs::permissions(dir, fs::perms::owner_all, fs::perm_options::replace, ec);
        if (!ec) qputenv("XDG_RUNTIME_DIR", QByteArray::fromStdString(dir.string()));
    }
    static int argc = 1;
    static char name[] = "zorv";
    static char* argv[] = {name, nullptr};
    // Lives to the end of the program: destroying it during static
    // destruction races Qt's own globals.
    static QGuiApplication* app = new QGuiApplication(argc, argv);
    (void)app;
}

Status RenderToFile(const std::string& path, int width, int height, const std::function<void(Surface&)>& draw) {
    Proc p("Paint(RenderToFile): ");
    p.chk = 1;
    const fs::path target(path);
    std::string ext = target.extension().string();
    if (!ext.empty()) ext.erase(0, 1);
    std::string lower = ext;
    std::transform(lower.begin(), lower.end(), lower.begin(), [](unsigned char c) { return std::tolower(c); });
    ChartType type;
    if (lower == "png")
        type = ChartType::Png;
    else if (lower == "svg")
        type = ChartType::Svg;
    else if (lower == "pdf")
        type = ChartType::Pdf;
    else
        return p.fail("Unknown chart file type: " + ext);

    p.chk = 2;
    if (width <= 0 || height <= 0)
        return p.fail("Invalid chart size: " + std::to_string(width) + " x " + std::to_string(height));
    EnsureGuiApplication();
    if (!qobject_cast<QGuiApplication*>(QCoreApplication::instance()))
        return p.fail("Charts need a graphical application to draw in");

    // A fresh name beside the target, so the final rename stays on one file
    // system and replaces the target in one step.
    p.chk = 3;
    static std::atomic<unsigned> serial{0};
    TempFile temp;
    QFile file;
    for (int attempt = 0;; ++attempt) {
        std::string name(1, '.');
        name.append(target.filename().string()).append(1, '.').append(std::to_string(getpid()));
        name.append(1, '-').append(std::to_string(serial++)).append(".tmp");
        temp.path = target.parent_path() / name;
        file.setFileName(QFile::decodeName(temp.path.c_str()));
        if (file.open(QIODevice::WriteOnly | QIODevice::NewOnly)) break;
        std::error_code ec;
        if (attempt < 100 && fs::exists(temp.path, ec)) continue;
        const std::string why = file.errorString().toStdString();
        temp.path.clear();  // nothing was made
        return CannotWrite(p, path, why);
    }

    p.chk = 4;
    const QString title = QFile::decodeName(target.stem().c_str());
    switch (type) {
    case ChartType::Png: {
        QImage image(width, height, QImage::Format_ARGB32_Premultiplied);
        if (image.isNull())
            return p.fail("Not enough memory for a chart of " + std::to_string(width) + " x " +
                          std::to_string(height) + " pixels");
        image.setDotsPerMeterX(3780);  // 96 dots an inch
        image.setDotsPerMeterY(3780);
        image.fill(Qt::white);
        QPainter painter(&image);
        if (!DrawOn(p, painter, width, height, draw)) return p.failure();
        p.chk = 5;
        QImageWriter writer(&file, "png");
        writer.setText("Title", title);
        if (!writer.write(image)) return CannotWrite(p, path, writer.errorString().toStdString());
        break;
    }
    case ChartType::Svg: {
        QSvgGenerator svg;
        svg.setOutputDevice(&file);
        svg.setSize(QSize(width, height));
        svg.setViewBox(QRect(0, 0, width, height));
        svg.setResolution(96);
        svg.setTitle(title);
        svg.setDescription(QStringLiteral("Zorv chart"));
        QPainter painter;
        if (!painter.begin(&svg)) return CannotWrite(p, path, "");
        if (!DrawOn(p, painter, width, height, draw)) return p.failure();
        break;
    }
    case ChartType::Pdf: {
        QPdfWriter pdf(&file);
        pdf.setResolution(96);
        pdf.setPageMargins(QMarginsF(0, 0, 0, 0));
        pdf.setPageSize(QPageSize(QSizeF(width * 72.0 / 96.0, height * 72.0 / 96.0), QPageSize::Point, QString(),
                                  QPageSize::ExactMatch));
        pdf.setTitle(title);
        pdf.setCreator(QStringLiteral("Zorv"));
        QPainter painter;
        if (!painter.begin(&pdf)) return CannotWrite(p, path, "");
        if (!DrawOn(p, painter, width, height, draw)) return p.failure();
        break;
    }
    }

    p.chk = 6;
    if (!file.flush() || file.error() != QFileDevice::NoError)
        return CannotWrite(p, path, file.errorString().toStdString());
    file.close();
    if (file.error() != QFileDevice::NoError) return CannotWrite(p, path, file.errorString().toStdString());
    std::error_code ec;
    fs::rename(temp.path, target, ec);
    if (ec) return CannotWrite(p, path, ec.message());
    temp.keep = true;
    return StatusOk();
}

}  // namespace zorv
