#pragma once

#include <QByteArray>
#include <QByteArrayView>
#include <QtGlobal>

#include <optional>

// The small protocol between the companion and its file-tool worker, over one socket: frames
// of a 4-byte big-endian length, a kind byte and a payload. The companion speaks first (Setup),
// the worker answers Ready; then each Call gets one Result, with at most one Approve / Answer
// exchange in between for a write. A write that replaces a file sends Previous (with a
// descriptor that reads the file, passed alongside) and waits for Kept before it cuts the file;
// every write that opened its file then sends Written. A successful call sends Summary right
// before its Result.
namespace WorkerProtocol {

enum class Kind : quint8 {
    Setup = 1,    // companion: JSON {folders: [{name, path, writable}], own: [...], confine, keep}
    Ready = 2,    // worker: JSON {confined, abi, reason}
    Call = 3,     // companion: JSON {method, params}
    Approve = 4,  // worker: JSON {path, bytes}, the question to put to the user
    Answer = 5,   // companion: one byte, 1 to go ahead
    Result = 6,   // worker: one byte (0 the result's JSON text follows, 1 an error text follows)
    Previous = 7, // worker: JSON {path, real, before, readable}, the file about to be replaced
    Kept = 8,     // companion: one byte, sent once the previous bytes are safe
    Written = 9,  // worker: JSON {path, real, created, after}, how the write left the file
    Summary = 10, // worker: JSON {bytes, items}, what a successful call moved
};

constexpr Kind lastKind = Kind::Summary;

// Large enough for any answer (a listing of a million entries is about 100 MB), small enough
// that a confused peer cannot make the other side reserve unbounded memory.
constexpr qsizetype largestPayload = qsizetype(512) * 1024 * 1024;
constexpr qsizetype headerSize = 5;

struct Frame {
    Kind kind;
    QByteArray payload;
};

QByteArray encode(Kind kind, QByteArrayView payload);

// The first frame at the start of `buffer`, removed from it; nothing while it is incomplete.
// Sets `malformed` for an unknown kind or a length over the limit: the stream cannot go on.
std::optional<Frame> take(QByteArray& buffer, bool& malformed);

// The payload length a header announces, or -1 when it is not a valid header.
qsizetype announcedLength(QByteArrayView header);

} // namespace WorkerProtocol
