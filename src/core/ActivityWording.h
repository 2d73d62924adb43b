#pragma once

#include "ActivityEntry.h"

#include <QString>

// How an agent's call reads in the window and the tray menu: a verb for the tool instead of its
// protocol name, the local time, and one short line for a menu.
namespace ActivityWording {

// "Read", "Listed", "Searched", "Wrote" for a call that went through; "Read", "List",
// "Search", "Write" for one that failed or was declined, which did nothing. Unknown tools
// keep their own name.
QString toolLabel(const ActivityEntry& entry);
// "14:03:07", local time.
QString timeText(const ActivityEntry& entry);
// "done", "declined" or "failed", with what was moved when there is something to say:
// "read 1.2 KiB", "3 items". The error itself is left out: it can be long.
QString shortOutcome(const ActivityEntry& entry);
// "14:03:07  Read  Docs/a.txt  read 1.2 KiB", the subject cut in the middle to at most
// `subjectLimit` characters so that a long path does not widen the menu.
QString menuLine(const ActivityEntry& entry, qsizetype subjectLimit = 48);
// `text` with its middle replaced by an ellipsis when longer than `limit` characters.
QString elideMiddle(const QString& text, qsizetype limit);

} // namespace ActivityWording
