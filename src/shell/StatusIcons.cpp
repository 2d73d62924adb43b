#include "StatusIcons.h"

#include "StatusMenuModel.h"

#include <QImage>
#include <QPainter>
#include <QPixmap>
#include <QSvgRenderer>

namespace {

// Renders `file` (artwork on a `grid` px grid) at `size` px: whole multiples of the grid scale
// exactly, and a grid a little smaller than the size is centred on a transparent border.
QPixmap render(const QString& file, int grid, int size) {
    QSvgRenderer renderer(file);
    QImage image(size, size, QImage::Format_ARGB32_Premultiplied);
    image.fill(Qt::transparent);
    QPainter painter(&image);
    const int scale = size / grid;
    const int drawn = grid * scale;
    const int offset = (size - drawn) / 2;
    renderer.render(&painter, QRectF(offset, offset, drawn, drawn));
    painter.end();
    return QPixmap::fromImage(image);
}

QIcon build(const QString& stem) {
    const QString small = QStringLiteral(":/shell/assets/") + stem + QStringLiteral("-16.svg");
    const QString large = QStringLiteral(":/shell/assets/") + stem + QStringLiteral("-22.svg");
    QIcon icon;
    for (const int size : StatusIcons::sizes()) {
        // 16, 32, 64 come from the 16 px artwork; 22, 24, 44, 48 from the 22 px one.
        const bool fromSmall = size % 16 == 0;
        icon.addPixmap(render(fromSmall ? small : large, fromSmall ? 16 : 22, size));
    }
    return icon;
}

} // namespace

QList<int> StatusIcons::sizes() {
    return {16, 22, 24, 32, 44, 48, 64};
}

QIcon StatusIcons::icon(const QString& symbolName) {
    if (symbolName == StatusMenuModel::onlineSymbol()) {
        return build(QStringLiteral("drive-online"));
    }
    if (symbolName == StatusMenuModel::offlineSymbol()) {
        return build(QStringLiteral("drive-offline"));
    }
    return QIcon();
}
