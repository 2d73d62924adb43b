#pragma once

#include <QByteArray>
#include <QList>
#include <QString>

#include <cstdio>
#include <cstdlib>
#include <functional>

// A broken property ends the run with a message; libFuzzer saves the input as a crash.
[[noreturn]] inline void fuzzFail(const char* what, const QString& detail = QString()) {
    std::fprintf(stderr, "\n*** property violated: %s\n", what);
    if (!detail.isEmpty()) {
        std::fprintf(stderr, "%s\n", detail.toUtf8().constData());
    }
    std::fflush(stderr);
    std::abort();
}

#define FUZZ_CHECK(condition, ...)                                                                 \
    do {                                                                                           \
        if (!(condition)) {                                                                        \
            fuzzFail(#condition __VA_OPT__(, ) __VA_ARGS__);                                       \
        }                                                                                          \
    } while (false)

// The description of an input, rendered only when a check fails.
using Detail = std::function<QString()>;

// A readable rendering of text for failure messages: printable ASCII as it stands (with \" and
// \\), the rest as \uXXXX.
inline QString fuzzQuote(const QString& text) {
    QString out = QStringLiteral("\"");
    for (const QChar c : text) {
        if (c == u'\\' || c == u'"') {
            out += u'\\';
            out += c;
        } else if (c.unicode() >= 0x20 && c.unicode() < 0x7f) {
            out += c;
        } else {
            out += QStringLiteral("\\u%1").arg(c.unicode(), 4, 16, QLatin1Char('0'));
        }
    }
    return out + u'"';
}

// The fields of an input, cut at every `separator` byte.
inline QList<QByteArray> fuzzFields(const uint8_t* data, size_t size, char separator) {
    return QByteArray(reinterpret_cast<const char*>(data), static_cast<qsizetype>(size))
        .split(separator);
}
