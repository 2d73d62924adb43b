#pragma once

#include <QTextStream>

// `quillmar-companion --headless`: the companion without tray or window. Loads folders, token
// and setting as at launch, keeps the bridge up and serves calls until SIGINT or SIGTERM,
// printing each status text as it changes.
namespace HeadlessRunner {

int run(QTextStream& out, QTextStream& err);

} // namespace HeadlessRunner
