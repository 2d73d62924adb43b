#include "AutostartCommand.h"

#include "AppIdentity.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSaveFile>
#include <QStandardPaths>

namespace {

// Exec= needs quoting when the path has blanks or characters the desktop entry format reserves.
QString quotedExec(const QString& executable) {
    static const QString reserved = QStringLiteral(" \t\n\"'\\><~|&;$*?#()`");
    bool needsQuotes = false;
    for (QChar c : executable) {
        if (reserved.contains(c)) {
            needsQuotes = true;
            break;
        }
    }
    if (!needsQuotes) {
        return executable;
    }
    QString escaped;
    for (QChar c : executable) {
        if (c == u'"' || c == u'`' || c == u'$' || c == u'\\') {
            escaped += u'\\';
        }
        escaped += c;
    }
    // Inside a desktop entry's string value, each backslash is itself escaped once more.
    escaped.replace(QStringLiteral("\\"), QStringLiteral("\\\\"));
    return u'"' + escaped + u'"';
}

} // namespace

QString AutostartCommand::entryPath() {
    return QStandardPaths::writableLocation(QStandardPaths::GenericConfigLocation) +
           QStringLiteral("/autostart/") + AppIdentity::id() + QStringLiteral(".desktop");
}

QByteArray AutostartCommand::entryContents(const QString& executable) {
    return QStringLiteral("[Desktop Entry]\n"
                          "Type=Application\n"
                          "Name=Quillmar OS\n"
                          "Comment=Lets Quillmar agents reach the folders you share\n"
                          "Exec=%1\n"
                          "Icon=%2\n"
                          "Terminal=false\n"
                          "Categories=Network;FileTransfer;\n"
                          "StartupNotify=false\n"
                          "StartupWMClass=Quillmar OS\n"
                          "X-GNOME-Autostart-enabled=true\n")
        .arg(quotedExec(executable), AppIdentity::id())
        .toUtf8();
}

AutostartCommand::AutostartCommand()
    : Command(QStringLiteral("autostart"),
              QStringLiteral("start the companion when you log in, or not")) {
    addChoiceArgument(QStringLiteral("SETTING"),
                      QStringLiteral("on writes an XDG autostart entry, off removes it"),
                      {QStringLiteral("on"), QStringLiteral("off")});
}

int AutostartCommand::execute(const QCommandLineParser& parser, QTextStream& out,
                              QTextStream& err) const {
    const QString path = entryPath();
    if (parser.positionalArguments().front() == u"off") {
        if (QFileInfo::exists(path) && !QFile::remove(path)) {
            err << "quillmar-companion: could not remove " << path << "\n" << Qt::flush;
            return 1;
        }
        out << "The companion will not start at login.\n" << Qt::flush;
        return 0;
    }
    QDir().mkpath(QFileInfo(path).absolutePath());
    QSaveFile file(path);
    if (!file.open(QIODevice::WriteOnly) ||
        file.write(entryContents(QCoreApplication::applicationFilePath())) < 0 || !file.commit()) {
        err << "quillmar-companion: could not write " << path << ": " << file.errorString() << "\n"
            << Qt::flush;
        return 1;
    }
    out << "The companion will start at login (" << path << ").\n" << Qt::flush;
    return 0;
}
