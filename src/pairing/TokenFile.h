#pragma once

#include <QByteArray>
#include <QString>

#include <optional>

// The device token in a file only its owner can read, for machines without a secret store
// (a headless server, a session without a bus). The file is 0600 from the moment it exists,
// in a 0700 folder; a file that others could read is not trusted.
class TokenFile {
public:
    explicit TokenFile(QString path = defaultPath());

    // $XDG_DATA_HOME/app.quillmar.companion/device_token
    static QString defaultPath();

    const QString& path() const { return m_path; }

    // Replaces the file atomically; false when it could not be written.
    bool save(const QByteArray& bytes) const;
    // The file's bytes; nothing when it is missing, not a plain file of this user, readable or
    // writable by anyone else, or implausibly large.
    std::optional<QByteArray> load() const;
    // True when no file is left, including when there was none.
    bool remove() const;

private:
    QString m_path;
};
