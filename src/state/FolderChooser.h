#pragma once

#include <QCoroTask>
#include <QString>

#include <optional>

// Asks the user for one folder. The desktop shell passes a dialog to the application state;
// tests pass their own answers. The answer may come later (a desktop portal answers over D-Bus).
class FolderChooser {
public:
    virtual ~FolderChooser() = default;

    // `prompt` is the confirming button's title, `message` the explanation. Gives the chosen
    // directory's absolute path, or nothing when the user cancelled.
    virtual QCoro::Task<std::optional<QString>> chooseFolder(QString prompt, QString message) = 0;
};
