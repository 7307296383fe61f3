// zorv: the desktop program.
#include <QApplication>
#include <QMainWindow>

int main(int argc, char** argv) {
    QApplication app(argc, argv);
    QMainWindow w;
    w.setWindowTitle("Zorv Wavefront Engineering");
    w.show();
    return app.exec();
}
