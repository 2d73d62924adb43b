#pragma once

class QFileDialog;

namespace OpenFolderDialog {

// The folder chooser's file dialog while it is on screen, else nullptr.
QFileDialog* find();

} // namespace OpenFolderDialog
