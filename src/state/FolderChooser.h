#pragma once

#include <QString>

#include <memory>
#include <optional>

// Asks the user for one folder. The desktop shell installs a dialog; tests install their own
// answer. Without an installed chooser nothing can be chosen.
class FolderChooser {
public:
    virtual ~FolderChooser() = default;

    // `prompt` is the confirming button's title, `message` the explanation. Returns the chosen
    // directory's absolute path, or nothing when the user cancelled.
    virtual std::optional<QString> chooseFolder(const QString& prompt, const QString& message) = 0;

    static void install(std::shared_ptr<FolderChooser> chooser);
    static std::shared_ptr<FolderChooser> installed();
};
