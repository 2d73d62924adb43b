#include "DeviceName.h"

#include "Platform.h"

#include <QFile>
#include <QSysInfo>

namespace {

// One assignment's value with shell quoting undone: '...' literal, "..." with \ escaping
// " \ ` $ only, and a bare \ escaping any character. Unquoted blanks at the ends are dropped.
std::optional<QString> unquote(QStringView raw) {
    QString value;
    QString pendingBlanks;
    auto append = [&](QChar c) {
        value += pendingBlanks;
        pendingBlanks.clear();
        value += c;
    };
    for (qsizetype i = 0; i < raw.size(); ++i) {
        const QChar c = raw[i];
        if (c == u'\'') {
            const qsizetype end = raw.indexOf(u'\'', i + 1);
            if (end < 0) {
                return std::nullopt;
            }
            value += pendingBlanks;
            pendingBlanks.clear();
            value += raw.mid(i + 1, end - i - 1);
            i = end;
        } else if (c == u'"') {
            value += pendingBlanks;
            pendingBlanks.clear();
            bool closed = false;
            for (++i; i < raw.size(); ++i) {
                const QChar q = raw[i];
                if (q == u'"') {
                    closed = true;
                    break;
                }
                if (q == u'\\' && i + 1 < raw.size() &&
                    QStringView(u"\"\\`$").contains(raw[i + 1])) {
                    value += raw[++i];
                } else {
                    value += q;
                }
            }
            if (!closed) {
                return std::nullopt;
            }
        } else if (c == u'\\') {
            if (i + 1 < raw.size()) {
                append(raw[++i]);
            }
        } else if (c == u' ' || c == u'\t') {
            if (!value.isEmpty()) {
                pendingBlanks += c;
            }
        } else {
            append(c);
        }
    }
    return value;
}

} // namespace

QString DeviceName::defaultMachineInfoPath() {
    return QStringLiteral("/etc/machine-info");
}

QString DeviceName::current(const QString& machineInfoPath) {
    return choose(prettyHostName(machineInfoPath), QSysInfo::machineHostName());
}

std::optional<QString> DeviceName::prettyHostName(const QString& machineInfoPath) {
    QFile file(machineInfoPath);
    if (!file.open(QIODevice::ReadOnly | QIODevice::Text)) {
        return std::nullopt;
    }
    // A later assignment wins, as when the file is sourced by a shell.
    std::optional<QString> found;
    const QStringList lines = QString::fromUtf8(file.readAll()).split(u'\n');
    for (const QString& line : lines) {
        const QStringView text = QStringView(line).trimmed();
        if (text.isEmpty() || text.startsWith(u'#') || text.startsWith(u';')) {
            continue;
        }
        const qsizetype equals = text.indexOf(u'=');
        if (equals < 0 || text.left(equals).trimmed() != u"PRETTY_HOSTNAME") {
            continue;
        }
        found = unquote(text.mid(equals + 1));
    }
    if (!found || found->trimmed().isEmpty()) {
        return std::nullopt;
    }
    return found;
}

QString DeviceName::choose(const std::optional<QString>& prettyName, const QString& hostName) {
    if (prettyName && !prettyName->trimmed().isEmpty()) {
        return *prettyName;
    }
    if (!hostName.trimmed().isEmpty()) {
        return hostName;
    }
    return Platform::fallbackDeviceName();
}
