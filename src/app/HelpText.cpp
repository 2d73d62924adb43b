#include "HelpText.h"

namespace {

QStringList lines(const QStringList& pieces, qsizetype firstColumn, qsizetype nextColumn) {
    QStringList result;
    QString line(firstColumn, u' ');
    bool empty = true;
    for (const QString& piece : pieces) {
        if (!empty && line.size() + 1 + piece.size() > HelpText::width) {
            result.append(line);
            line = QString(nextColumn, u' ');
            empty = true;
        }
        if (!empty) {
            line += u' ';
        }
        line += piece;
        empty = false;
    }
    if (!empty) {
        result.append(line);
    }
    return result;
}

} // namespace

QString HelpText::program() {
    return QStringLiteral("quillmar-companion");
}

QString HelpText::wrap(const QStringList& pieces, qsizetype firstColumn, qsizetype nextColumn) {
    const QStringList wrapped = lines(pieces, firstColumn, nextColumn);
    return wrapped.isEmpty() ? QString() : wrapped.join(u'\n') + u'\n';
}

QString HelpText::entry(const QStringList& term, const QString& description) {
    QStringList result = lines(term, 2, 6);
    QStringList text =
        lines(description.split(u' ', Qt::SkipEmptyParts), descriptionColumn, descriptionColumn);
    if (!result.isEmpty() && !text.isEmpty() && result.last().size() + 2 <= descriptionColumn) {
        text.front() = result.takeLast().leftJustified(descriptionColumn) +
                       text.front().mid(descriptionColumn);
    }
    result += text;
    return result.join(u'\n') + u'\n';
}
