#pragma once

#include <QTemporaryDir>

// Folders of a test process's own, set up before its QApplication: XDG_RUNTIME_DIR (a fresh 0700
// folder, so runs never share a socket or a lock) and XDG_CONFIG_HOME for whatever is not in a
// StateSandbox. Qt's own settings (the file dialog remembers its last folder) keep the path
// they first saw for the whole process, so they are pinned here, inside this folder, and go
// with it.
class PrivateRuntime {
public:
    PrivateRuntime();
    QString path() const { return m_dir.path(); }

private:
    QTemporaryDir m_dir;
};
