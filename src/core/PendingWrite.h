#pragma once

#include "FileLocation.h"

#include <QByteArray>
#include <QString>

// A write that has passed every check and waits for the user's answer. Holds the place it will
// write to open, so that what the user allows is what happens.
struct PendingWrite {
    // As the agent sent it.
    QString path;
    // What the user is asked about: the path, and where it really leads when a link takes it
    // elsewhere.
    QString shownPath;
    QByteArray data;
    FileLocation target;
};
