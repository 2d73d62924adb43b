#pragma once

#include <QString>
#include <QStringList>

// The layout of the command line's help: terms in a first column, what they do from column 24,
// everything wrapped at 80 columns.
namespace HelpText {

inline constexpr qsizetype width = 80;
inline constexpr qsizetype descriptionColumn = 24;

// The executable's name as help and messages show it.
QString program();

// `pieces` joined by blanks, one line after another as they fit; the first line starts at
// `firstColumn`, the others at `nextColumn`. A piece is never broken.
QString wrap(const QStringList& pieces, qsizetype firstColumn, qsizetype nextColumn);

// "  TERM                  description", the description beside the term when it fits.
QString entry(const QStringList& term, const QString& description);

} // namespace HelpText
