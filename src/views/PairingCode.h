#pragma once

#include <QObject>
#include <QString>
#include <QtQml/qqmlregistration.h>

// The pairing code as the code field keeps it: upper case, letters and digits only, at most
// eight characters. Characters are user-perceived ones (grapheme clusters).
class PairingCode : public QObject {
    Q_OBJECT
    QML_ELEMENT
    QML_SINGLETON
    Q_PROPERTY(int minimumLength READ minimumLength CONSTANT)
    Q_PROPERTY(int maximumLength READ maximumLength CONSTANT)

public:
    explicit PairingCode(QObject* parent = nullptr);

    static constexpr int minimumLength() { return 6; }
    static constexpr int maximumLength() { return 8; }

    // Upper-cases `typed` (full Unicode mapping), keeps only the characters that are letters or
    // numbers, and cuts the result after maximumLength() characters.
    Q_INVOKABLE static QString normalise(const QString& typed);
    // Number of characters in `code`.
    Q_INVOKABLE static int length(const QString& code);
    // Long enough to be claimed.
    Q_INVOKABLE static bool isComplete(const QString& code);
};
