#pragma once

#include "PendingWrite.h"

#include <sys/stat.h>

// Told by the writing tool about each file it replaces or creates, so that what was there
// before can be kept for the user to put back. Calls come from inside the write, after the
// user's approval and every check, in order: replacing() (only for an existing regular file),
// then written() once the write is over, whether it succeeded or not.
class WriteRecorder {
public:
    virtual ~WriteRecorder() = default;

    // The file is about to be cut and rewritten. `previous` reads it as it is now (opened for
    // reading only, the same file as the one about to be written), or is -1 when it cannot be
    // read. Returns once the previous bytes are kept or could not be; the descriptor stays the
    // caller's.
    virtual void replacing(const PendingWrite& write, int previous, const struct stat& before) = 0;
    // The write is over. `created`: the file did not exist before. `after`: its status now,
    // or nullptr when that is unknown.
    virtual void written(const PendingWrite& write, bool created, const struct stat* after) = 0;
};
