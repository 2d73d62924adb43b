#include "PairingCode.h"

#include <QStringView>
#include <QTextBoundaryFinder>

namespace {

// Calls `visit` with each grapheme cluster of `text`, in order, until it returns false.
template <typename Visit> void forEachCharacter(const QString& text, Visit visit) {
    QTextBoundaryFinder finder(QTextBoundaryFinder::Grapheme, text);
    qsizetype start = 0;
    while (start < text.size()) {
        qsizetype end = finder.toNextBoundary();
        if (end <= start) {
            end = text.size();
        }
        if (!visit(QStringView(text).mid(start, end - start))) {
            return;
        }
        start = end;
    }
}

bool isLetterOrNumber(QStringView character) {
    // A cluster counts by its base character; combining marks travel with it.
    const char32_t base = character.toUcs4().value(0);
    return QChar::isLetterOrNumber(base);
}

} // namespace

PairingCode::PairingCode(QObject* parent) : QObject(parent) {}

QString PairingCode::normalise(const QString& typed) {
    const QString upper = typed.toUpper();
    QString code;
    int kept = 0;
    forEachCharacter(upper, [&](QStringView character) {
        if (kept == maximumLength()) {
            return false;
        }
        if (isLetterOrNumber(character)) {
            code.append(character);
            ++kept;
        }
        return true;
    });
    return code;
}

int PairingCode::length(const QString& code) {
    int characters = 0;
    forEachCharacter(code, [&](QStringView) {
        ++characters;
        return true;
    });
    return characters;
}

bool PairingCode::isComplete(const QString& code) {
    return length(code) >= minimumLength();
}
