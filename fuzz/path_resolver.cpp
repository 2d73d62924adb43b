// Confinement of agent paths. For fuzzed shared folders and a fuzzed agent path, PathResolver
// must agree with a small model written here from the rules alone: the same folder chosen,
// the same error text, and an accepted item always equal to the folder's root or below it.
//
// Input: fields cut at 0x1F. The last field is the agent path; the fields before it are
// (name, path) pairs of up to three shared folders. Every field is decoded as UTF-8 with
// replacement, NUL bytes kept.

#include "FuzzCheck.h"
#include "PathResolver.h"
#include "ToolError.h"

#include <QFile>
#include <QUuid>

#include <unicode/unorm2.h>

#include <string>
#include <vector>

#include <unistd.h>

namespace {

constexpr char separator = 0x1f;
constexpr qsizetype maxFolders = 3;

struct Outcome {
    bool accepted = false;
    QString root;
    QString item;
    QString error;
};

// --- The model -------------------------------------------------------------------------------

std::u16string utf16(const QString& text) {
    return std::u16string(reinterpret_cast<const char16_t*>(text.utf16()),
                          static_cast<std::size_t>(text.size()));
}

QString fromUtf16(const std::u16string& text) {
    return QString(reinterpret_cast<const QChar*>(text.data()),
                   static_cast<qsizetype>(text.size()));
}

// NFC through ICU, independent of Qt's own tables.
std::u16string nfc(const std::u16string& text) {
    UErrorCode status = U_ZERO_ERROR;
    const UNormalizer2* normalizer = unorm2_getNFCInstance(&status);
    FUZZ_CHECK(U_SUCCESS(status));
    std::u16string out(text.size() * 3 + 16, u'\0');
    for (;;) {
        status = U_ZERO_ERROR;
        const int32_t length = unorm2_normalize(
            normalizer, reinterpret_cast<const UChar*>(text.data()),
            static_cast<int32_t>(text.size()), reinterpret_cast<UChar*>(out.data()),
            static_cast<int32_t>(out.size()), &status);
        if (status == U_BUFFER_OVERFLOW_ERROR) {
            out.resize(static_cast<std::size_t>(length));
            continue;
        }
        FUZZ_CHECK(U_SUCCESS(status));
        out.resize(static_cast<std::size_t>(length));
        return out;
    }
}

bool canonicallyEqual(const std::u16string& a, const std::u16string& b) {
    return a == b || nfc(a) == nfc(b);
}

std::u16string currentDirectory() {
    std::vector<char> buffer(4096);
    FUZZ_CHECK(::getcwd(buffer.data(), buffer.size()) != nullptr);
    return utf16(QString::fromUtf8(buffer.data()));
}

// Lexical normalisation: components between slashes, "." dropped, ".." taking away the one
// before it (none above the top), no empty components, one leading slash.
std::u16string normalise(std::u16string path) {
    if (path.empty() || path.front() != u'/') {
        path = currentDirectory() + u'/' + path;
    }
    // Components as (start, length) in `path`.
    std::vector<std::pair<std::size_t, std::size_t>> kept;
    std::size_t start = 0;
    for (std::size_t at = 0; at <= path.size(); ++at) {
        if (at < path.size() && path[at] != u'/') {
            continue;
        }
        const std::size_t length = at - start;
        const bool dot = length == 1 && path[start] == u'.';
        const bool dotDot = length == 2 && path[start] == u'.' && path[start + 1] == u'.';
        if (dotDot) {
            if (!kept.empty()) {
                kept.pop_back();
            }
        } else if (length > 0 && !dot) {
            kept.emplace_back(start, length);
        }
        start = at + 1;
    }
    std::u16string out;
    for (const auto& [from, length] : kept) {
        out += u'/';
        out.append(path, from, length);
    }
    return out.empty() ? std::u16string(u"/") : out;
}

bool within(const std::u16string& item, const std::u16string& root) {
    if (item == root) {
        return true;
    }
    const std::u16string prefix = root + u'/';
    return item.size() >= prefix.size() && item.compare(0, prefix.size(), prefix) == 0;
}

Outcome model(const std::u16string& agentPath, const QList<SharedFolder>& folders) {
    std::size_t begin = 0;
    std::size_t end = agentPath.size();
    while (begin < end && agentPath[begin] == u'/') {
        ++begin;
    }
    while (end > begin && agentPath[end - 1] == u'/') {
        --end;
    }
    const std::u16string trimmed = agentPath.substr(begin, end - begin);

    std::u16string first;
    std::u16string rest;
    const std::size_t slash = trimmed.find(u'/');
    if (slash == std::u16string::npos) {
        first = trimmed;
    } else {
        first = trimmed.substr(0, slash);
        rest = trimmed.substr(slash + 1);
    }

    const SharedFolder* chosen = nullptr;
    std::u16string inner;
    if (!trimmed.empty()) {
        for (const SharedFolder& folder : folders) {
            if (canonicallyEqual(utf16(folder.name), first)) {
                chosen = &folder;
                inner = rest;
                break;
            }
        }
    }
    if (!chosen && folders.size() == 1) {
        chosen = &folders.front();
        inner = trimmed;
    }

    Outcome outcome;
    if (!chosen) {
        std::u16string names;
        for (qsizetype i = 0; i < folders.size(); ++i) {
            if (i > 0) {
                names += u", ";
            }
            names += utf16(folders[i].name);
        }
        if (names.empty()) {
            names = u"(none)";
        }
        outcome.error =
            fromUtf16(u"No shared folder named '" + first +
                      u"'. Prefix the path with a folder name. Shared folders: " + names + u".");
        return outcome;
    }
    const std::u16string root = normalise(utf16(chosen->path));
    const std::u16string item = inner.empty() ? root : normalise(root + u'/' + inner);
    if (!within(item, root)) {
        outcome.error = QStringLiteral("Path escapes the shared folder.");
        return outcome;
    }
    outcome.accepted = true;
    outcome.root = fromUtf16(root);
    outcome.item = fromUtf16(item);
    return outcome;
}

// --- The code under test ---------------------------------------------------------------------

Outcome actual(const QString& agentPath, const QList<SharedFolder>& folders) {
    Outcome outcome;
    try {
        const PathResolver::Resolved resolved = PathResolver::resolve(agentPath, folders);
        outcome.accepted = true;
        outcome.root = resolved.root;
        outcome.item = resolved.item;
    } catch (const ToolError& error) {
        outcome.error = error.message();
    }
    return outcome;
}

bool isStandardised(const QString& path) {
    if (!path.startsWith(u'/')) {
        return false;
    }
    if (path == u"/") {
        return true;
    }
    if (path.endsWith(u'/')) {
        return false;
    }
    for (const QStringView part : QStringView(path).mid(1).split(u'/')) {
        if (part.isEmpty() || part == u"." || part == u"..") {
            return false;
        }
    }
    return true;
}

void checkNativePath(const QString& path) {
    const std::optional<QByteArray> native = PathResolver::nativePath(path);
    if (path.contains(QChar(u'\0'))) {
        FUZZ_CHECK(!native, fuzzQuote(path));
        return;
    }
    FUZZ_CHECK(native, fuzzQuote(path));
    FUZZ_CHECK(!native->contains('\0'), fuzzQuote(path));
    FUZZ_CHECK(QFile::decodeName(*native) == path, fuzzQuote(path));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const QList<QByteArray> fields = fuzzFields(data, size, separator);
    QList<SharedFolder> folders;
    for (qsizetype i = 0; i + 1 < fields.size() - 1 && folders.size() < maxFolders; i += 2) {
        // Ids play no part in resolution; a fixed one keeps runs reproducible.
        folders.append(SharedFolder{QUuid(), QString::fromUtf8(fields[i]),
                                    QString::fromUtf8(fields[i + 1]), std::nullopt});
    }
    const QString agentPath = QString::fromUtf8(fields.back());

    const Outcome expected = model(utf16(agentPath), folders);
    const Outcome got = actual(agentPath, folders);

    // Only rendered when a check fails.
    const auto detail = [&] {
        QString text = QStringLiteral("agent path ") + fuzzQuote(agentPath);
        for (const SharedFolder& folder : folders) {
            text += QStringLiteral("\nfolder ") + fuzzQuote(folder.name) + QStringLiteral(" at ") +
                    fuzzQuote(folder.path);
        }
        return text + QStringLiteral("\nexpected ") +
               (expected.accepted ? fuzzQuote(expected.item) : fuzzQuote(expected.error)) +
               QStringLiteral("\ngot      ") +
               (got.accepted ? fuzzQuote(got.item) : fuzzQuote(got.error));
    };

    FUZZ_CHECK(got.accepted == expected.accepted, detail());
    if (!got.accepted) {
        FUZZ_CHECK(got.error == expected.error, detail());
        return 0;
    }
    FUZZ_CHECK(got.root == expected.root, detail());
    FUZZ_CHECK(got.item == expected.item, detail());
    // Below the root, lexically, whatever the model says.
    FUZZ_CHECK(got.item == got.root || got.item.startsWith(got.root + u'/'), detail());
    FUZZ_CHECK(isStandardised(got.root) && isStandardised(got.item), detail());
    checkNativePath(got.root);
    checkNativePath(got.item);
    return 0;
}
