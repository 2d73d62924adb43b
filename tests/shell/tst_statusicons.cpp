#include "ShellTestMain.h"
#include "StatusIcons.h"
#include "StatusMenuModel.h"

#include <QDir>
#include <QImage>
#include <QPainter>
#include <QTest>

namespace {

QImage at(const QString& symbol, int size) {
    return StatusIcons::icon(symbol)
        .pixmap(QSize(size, size))
        .toImage()
        .convertToFormat(QImage::Format_ARGB32);
}

// Pixels that are neither fully transparent nor fully opaque: the blur of a scaled drawing.
double partialShare(const QImage& image) {
    int partial = 0;
    int painted = 0;
    for (int y = 0; y < image.height(); ++y) {
        for (int x = 0; x < image.width(); ++x) {
            const int alpha = qAlpha(image.pixel(x, y));
            if (alpha > 0) {
                ++painted;
            }
            // The plate is translucent on purpose; count only the glyph's light pixels.
            const QRgb pixel = image.pixel(x, y);
            if (qGray(pixel) > 60 && qGray(pixel) < 200 && alpha > 0) {
                ++partial;
            }
        }
    }
    return painted ? double(partial) / painted : 1.0;
}

} // namespace

class StatusIconsTest : public QObject {
    Q_OBJECT

private slots:
    void bothSymbolsAtEverySize() {
        for (const QString& symbol :
             {StatusMenuModel::onlineSymbol(), StatusMenuModel::offlineSymbol()}) {
            const QIcon icon = StatusIcons::icon(symbol);
            QVERIFY(!icon.isNull());
            for (const int size : {16, 22, 24, 32}) {
                QVERIFY(icon.availableSizes().contains(QSize(size, size)));
                const QImage image = at(symbol, size);
                QCOMPARE(image.size(), QSize(size, size));
                QVERIFY2(partialShare(image) < 0.25, qPrintable(symbol + QString::number(size)));
            }
        }
        QVERIFY(at(StatusMenuModel::onlineSymbol(), 22) !=
                at(StatusMenuModel::offlineSymbol(), 22));
    }

    void anUnknownSymbolHasNoImage() {
        QVERIFY(StatusIcons::icon(QStringLiteral("externaldrive.badge.questionmark")).isNull());
    }

    // A sheet of both icons at every size, magnified, on a dark and a light panel colour, for
    // a person to look at.
    void contactSheet() {
        const QList<int> sizes{16, 22, 24, 32};
        const int zoom = 6;
        const int cell = 32 * zoom + 16;
        QImage sheet(cell * sizes.size() + 16, (cell + 48) * 4, QImage::Format_ARGB32);
        sheet.fill(Qt::white);
        QPainter painter(&sheet);
        const QList<QColor> panels{QColor(0x2b, 0x2b, 0x2b), QColor(0xef, 0xef, 0xef)};
        int row = 0;
        for (const QColor& panel : panels) {
            for (const QString& symbol :
                 {StatusMenuModel::onlineSymbol(), StatusMenuModel::offlineSymbol()}) {
                const int top = row * (cell + 48);
                painter.fillRect(0, top, sheet.width(), cell + 48, panel);
                for (qsizetype i = 0; i < sizes.size(); ++i) {
                    const int size = sizes.at(i);
                    const QImage image = at(symbol, size);
                    const int left = 8 + int(i) * cell;
                    painter.drawImage(QRect(left, top + 8, size * zoom, size * zoom), image);
                    painter.drawImage(QPoint(left, top + cell + 8), image);
                }
                ++row;
            }
        }
        painter.end();
        QDir().mkpath(QStringLiteral(QUILLMAR_SHELL_SCREENSHOTS));
        QVERIFY(sheet.save(QStringLiteral(QUILLMAR_SHELL_SCREENSHOTS "/status-icons.png")));
    }
};

QUILLMAR_SHELL_TEST_MAIN(StatusIconsTest)
#include "tst_statusicons.moc"
