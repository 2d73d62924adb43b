#pragma once

#include <QString>
#include <QStringView>

// Makes text from elsewhere (a path an agent chose) safe to put before a person: nothing in it
// can move the cursor, clear a terminal, return to the start of a line or reorder what follows.
//
// - C0 controls other than the line feed become their Control Pictures (ESC "␛", CR "␍",
//   TAB "␉", NUL "␀"), DEL becomes "␡".
// - The line feed stays a real line break: a path with one is shown across lines.
// - C1 controls (U+0080 to U+009F), the bidirectional formatting characters (U+061C, U+200E,
//   U+200F, U+202A to U+202E, U+2066 to U+2069) and the line and paragraph separators (U+2028,
//   U+2029) become their code point in angle brackets: "⟨U+202E⟩".
// - An unpaired surrogate becomes U+FFFD.
// Everything else is kept: letters, emoji, ZWJ and ZWNJ, combining marks, and text that only
// looks like a marker ("⟨U+202E⟩" typed out stays as it is, so the result is for reading, not
// for turning back into the original).
namespace VisibleText {

QString escaped(QStringView text);
// The same, kept on one line: a line feed is shown as "␤".
QString oneLine(QStringView text);

} // namespace VisibleText
