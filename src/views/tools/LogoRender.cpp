// Renders an SVG into a square PNG: quillmar-logo-render <input.svg> <output.png> <pixels>.
// The build uses it to make the logo image from its SVG source; the desktop shell can use it
// for icons of other sizes.

#include <QFileInfo>
#include <QImage>
#include <QPainter>
#include <QSvgRenderer>
#include <QTextStream>

int main(int argc, char* argv[]) {
    // Plain raster painting: no application object, so no display is needed at build time.
    QStringList arguments;
    for (int i = 0; i < argc; ++i) {
        arguments.append(QString::fromLocal8Bit(argv[i]));
    }
    QTextStream err(stderr);
    bool sizeOk = false;
    const int pixels = arguments.size() == 4 ? arguments.at(3).toInt(&sizeOk) : 0;
    if (!sizeOk || pixels <= 0) {
        err << "usage: quillmar-logo-render <input.svg> <output.png> <pixels>\n";
        return 2;
    }
    QSvgRenderer renderer(arguments.at(1));
    if (!renderer.isValid()) {
        err << "cannot read " << arguments.at(1) << "\n";
        return 1;
    }
    QImage image(pixels, pixels, QImage::Format_ARGB32_Premultiplied);
    image.fill(Qt::transparent);
    {
        QPainter painter(&image);
        painter.setRenderHints(QPainter::Antialiasing | QPainter::SmoothPixmapTransform);
        renderer.render(&painter, QRectF(0, 0, pixels, pixels));
    }
    if (!image.save(arguments.at(2), "PNG")) {
        err << "cannot write " << QFileInfo(arguments.at(2)).absoluteFilePath() << "\n";
        return 1;
    }
    return 0;
}
