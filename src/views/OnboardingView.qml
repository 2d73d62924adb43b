import QtQuick
import QtQuick.Layouts
import Quillmar.Views

// The onboarding flow: welcome, pairing code, folders to share, done. Keeps its step and the
// typed code for as long as it exists, so a closed and reopened window resumes where it was.
FocusScope {
    id: view

    // onFinish: the done page's button; the root view then shows the home page.
    signal finish

    property int step: OnboardingStep.Welcome
    // The pairing code as typed, already normalised.
    property alias code: codeField.text

    function submitPair() {
        if (step !== OnboardingStep.Pair || !PairingCode.isComplete(code))
            return
        if (AppState.pairing)
            return
        AppState.pair(code)
    }

    function doneMessage(count) {
        if (count === 1)
            return qsTr("This %1 is paired and 1 folder is shared. Quillmar lives in %2.")
                .arg(Platform.device).arg(Platform.iconHome)
        if (count > 1)
            return qsTr("This %1 is paired and %2 folders are shared. Quillmar lives in %3.")
                .arg(Platform.device).arg(count).arg(Platform.iconHome)
        return qsTr("This %1 is paired. Add folders anytime from %2 to let agents reach your files.")
            .arg(Platform.device).arg(Platform.iconReach)
    }

    // Enter: the page's primary button.
    function activateDefault() {
        if (step === OnboardingStep.Welcome)
            view.step = OnboardingStep.Pair
        else if (step === OnboardingStep.Pair)
            submitPair()
        else if (step === OnboardingStep.Folders)
            view.step = OnboardingStep.Done
        else
            view.finish()
    }

    objectName: "onboardingView"
    implicitWidth: Theme.px(460)
    implicitHeight: Theme.px(600)
    focus: true

    Keys.onReturnPressed: activateDefault()
    Keys.onEnterPressed: activateDefault()
    // Escape does what Back does; only the pair page has one.
    Keys.onEscapePressed: event => {
        event.accepted = view.step === OnboardingStep.Pair
        if (event.accepted)
            view.step = OnboardingStep.Welcome
    }

    // Someone who opens onboarding while already paired never sees the welcome or pair page.
    Component.onCompleted: {
        if (AppState.paired)
            step = folders.count > 0 ? OnboardingStep.Done : OnboardingStep.Folders
    }

    onStepChanged: {
        if (step === OnboardingStep.Pair) {
            codeField.forceActiveFocus()
        } else {
            // Keys go to the page shown, not to the hidden field.
            codeField.focus = false
            view.forceActiveFocus()
        }
    }

    Connections {
        target: AppState
        function onPairedChanged() {
            // A successful pairing moves the flow on; submitPair() itself never does.
            if (AppState.paired && view.step === OnboardingStep.Pair)
                view.step = OnboardingStep.Folders
            // Paired all along, once the keyring could be read: as when opened already paired.
            else if (AppState.paired && view.step === OnboardingStep.Welcome)
                view.step = folders.count > 0 ? OnboardingStep.Done : OnboardingStep.Folders
            // Unpaired (from the tray) after pairing: the later pages no longer apply.
            else if (!AppState.paired && view.step !== OnboardingStep.Pair)
                view.step = OnboardingStep.Welcome
        }
    }

    SharedFolderListModel {
        id: folders
    }

    WindowBackground {
        tint: 0.06
    }

    // 36 from the top and bottom, 40 from the sides. Each page sits at the bottom, above the step
    // indicator: flexible space above, none below.
    ColumnLayout {
        id: content
        objectName: "onboardingContent"
        anchors.fill: parent
        anchors.leftMargin: Theme.px(40)
        anchors.rightMargin: Theme.px(40)
        anchors.topMargin: Theme.px(36)
        anchors.bottomMargin: Theme.px(36)
        spacing: 0

        Item {
            Layout.fillHeight: true
        }

        // welcomeStep
        ColumnLayout {
            objectName: "welcomeStep"
            Layout.fillWidth: true
            spacing: Theme.px(24)
            visible: view.step === OnboardingStep.Welcome

            BrandLogo {
                objectName: "welcomeLogo"
                Layout.alignment: Qt.AlignHCenter
                Layout.preferredWidth: Theme.px(92)
                Layout.preferredHeight: Theme.px(92)
            }
            ColumnLayout {
                Layout.fillWidth: true
                spacing: Theme.px(8)

                Text {
                    Layout.alignment: Qt.AlignHCenter
                    text: qsTr("Quillmar OS")
                    color: Theme.primary
                    font.pixelSize: Theme.px(26)
                    font.bold: true
                    Accessible.role: Accessible.Heading
                    Accessible.name: text
                }
                Text {
                    objectName: "welcomeSubtitle"
                    Layout.fillWidth: true
                    Layout.leftMargin: Theme.px(8)
                    Layout.rightMargin: Theme.px(8)
                    text: qsTr("Give your AI workforce secure access to files on this %1 — read, summarise, and draft, with your approval.")
                          .arg(Platform.device)
                    color: Theme.secondary
                    font.pixelSize: Theme.px(13)
                    horizontalAlignment: Text.AlignHCenter
                    wrapMode: Text.WordWrap
                    Accessible.role: Accessible.StaticText
                    Accessible.name: text
                }
            }
            FeatureRow {
                objectName: "filesStayRow"
                Layout.alignment: Qt.AlignHCenter
                Layout.maximumWidth: parent.width
                icon: "lock.shield"
                title: qsTr("Files stay on your %1").arg(Platform.device)
                subtitle: qsTr("Only the bytes an agent reads are sent — nothing is uploaded.")
            }
            FeatureRow {
                Layout.alignment: Qt.AlignHCenter
                Layout.maximumWidth: parent.width
                icon: "folder"
                title: qsTr("You choose the folders")
                subtitle: qsTr("Share exactly what you want. Revoke anytime.")
            }
            FeatureRow {
                Layout.alignment: Qt.AlignHCenter
                Layout.maximumWidth: parent.width
                icon: "checkmark.seal"
                title: qsTr("Every write is approved")
                subtitle: qsTr("Agents can't change files without your OK.")
            }
            // Shown when the keyring could not be read at start: pairing again would be wrong
            // for a computer that is paired, so unlocking and reading again comes first.
            ColumnLayout {
                objectName: "keyringNotice"
                Layout.fillWidth: true
                spacing: Theme.px(8)
                visible: AppState.keyringProblem !== ""

                Text {
                    objectName: "keyringProblemText"
                    Layout.fillWidth: true
                    text: AppState.keyringProblem
                    color: Theme.red
                    font.pixelSize: Theme.px(12)
                    horizontalAlignment: Text.AlignHCenter
                    wrapMode: Text.WordWrap
                    Accessible.role: Accessible.StaticText
                    Accessible.name: text
                }
                SecondaryButton {
                    objectName: "keyringRetryButton"
                    Layout.fillWidth: true
                    text: qsTr("Try Again")
                    symbol: "arrow.clockwise"
                    onClicked: AppState.retryKeyring()
                }
            }
            PrimaryButton {
                objectName: "getStartedButton"
                Layout.fillWidth: true
                title: qsTr("Get Started")
                onClicked: view.step = OnboardingStep.Pair
            }
        }

        // pairStep
        ColumnLayout {
            objectName: "pairStep"
            Layout.fillWidth: true
            spacing: Theme.px(20)
            visible: view.step === OnboardingStep.Pair

            StepHeader {
                objectName: "pairHeader"
                Layout.fillWidth: true
                icon: "link.circle.fill"
                title: qsTr("Pair this %1").arg(Platform.device)
                subtitle: qsTr("In Quillmar on the web, open Connectors → Local Files → Generate pairing code, then enter it here.")
            }
            ColumnLayout {
                objectName: "codeBlock"
                Layout.fillWidth: true
                spacing: Theme.px(8)

                PairingCodeField {
                    id: codeField
                    objectName: "codeField"
                    Layout.fillWidth: true
                    onSubmitted: view.submitPair()
                }
                Text {
                    objectName: "pairErrorText"
                    Layout.fillWidth: true
                    visible: AppState.hasPairError
                    text: AppState.pairError
                    color: Theme.red
                    font.pixelSize: Theme.px(11)
                    horizontalAlignment: Text.AlignHCenter
                    wrapMode: Text.WordWrap
                    Accessible.role: Accessible.AlertMessage
                    Accessible.name: text
                }
            }
            PrimaryButton {
                objectName: "pairButton"
                Layout.fillWidth: true
                title: AppState.pairing ? qsTr("Pairing…") : qsTr("Pair")
                loading: AppState.pairing
                disabled: !PairingCode.isComplete(view.code) || AppState.pairing
                onClicked: view.submitPair()
            }
            PlainButton {
                objectName: "backButton"
                Layout.alignment: Qt.AlignHCenter
                text: qsTr("Back")
                color: Theme.secondary
                onClicked: view.step = OnboardingStep.Welcome
            }
        }

        // foldersStep: the list of folders gives way when the page does not fit.
        ColumnLayout {
            id: foldersPage
            objectName: "foldersStep"
            Layout.fillWidth: true
            Layout.fillHeight: true
            Layout.maximumHeight: implicitHeight
            spacing: Theme.px(18)
            visible: view.step === OnboardingStep.Folders

            StepHeader {
                Layout.fillWidth: true
                icon: "folder.fill.badge.plus"
                title: qsTr("Choose folders to share")
                subtitle: qsTr("Agents can read and write only inside the folders you add here.")
            }
            ColumnLayout {
                objectName: "noFoldersPlaceholder"
                Layout.fillWidth: true
                Layout.topMargin: Theme.px(24)
                Layout.bottomMargin: Theme.px(24)
                spacing: Theme.px(8)
                visible: folders.count === 0

                Symbol {
                    Layout.alignment: Qt.AlignHCenter
                    name: "tray"
                    size: 28
                    color: Theme.tertiary
                }
                Text {
                    Layout.alignment: Qt.AlignHCenter
                    text: qsTr("No folders shared yet")
                    color: Theme.secondary
                    font.pixelSize: Theme.px(12)
                    Accessible.role: Accessible.StaticText
                    Accessible.name: text
                }
            }
            ScrollingList {
                id: folderList
                objectName: "folderList"
                Layout.fillWidth: true
                Layout.fillHeight: true
                Layout.minimumHeight: Math.min(contentHeight, Theme.px(56))
                Layout.preferredHeight: contentHeight
                Layout.maximumHeight: contentHeight
                visible: folders.count > 0
                spacing: Theme.px(6)
                Accessible.name: qsTr("Shared folders")

                Repeater {
                    model: folders

                    FolderRow {
                        id: folderRow
                        Layout.fillWidth: true
                        onRemoveRequested: AppState.removeFolderById(folderRow.folderId)
                    }
                }
            }
            SecondaryButton {
                id: addFolderButton
                objectName: "addFolderButton"
                Layout.fillWidth: true
                text: qsTr("Add Folder…")
                symbol: "plus"
                onClicked: AppState.addFolder()
            }
            PrimaryButton {
                id: foldersContinueButton
                objectName: "foldersContinueButton"
                Layout.fillWidth: true
                title: folders.count === 0 ? qsTr("Skip for now") : qsTr("Continue")
                onClicked: view.step = OnboardingStep.Done
            }
        }

        // doneStep
        ColumnLayout {
            objectName: "doneStep"
            Layout.fillWidth: true
            spacing: Theme.px(22)
            visible: view.step === OnboardingStep.Done

            Rectangle {
                Layout.alignment: Qt.AlignHCenter
                Layout.preferredWidth: Theme.px(96)
                Layout.preferredHeight: Theme.px(96)
                radius: width / 2
                color: Theme.alpha(Theme.brand, 0.15)

                Symbol {
                    anchors.centerIn: parent
                    name: "checkmark"
                    size: 40
                    bold: true
                    color: Theme.dark ? Theme.brand : Theme.brandDeep
                }
            }
            ColumnLayout {
                Layout.fillWidth: true
                spacing: Theme.px(10)

                Text {
                    Layout.alignment: Qt.AlignHCenter
                    text: qsTr("You're all set")
                    color: Theme.primary
                    font.pixelSize: Theme.px(24)
                    font.bold: true
                    Accessible.role: Accessible.Heading
                    Accessible.name: text
                }
                Text {
                    objectName: "doneMessage"
                    Layout.fillWidth: true
                    text: view.doneMessage(folders.count)
                    color: Theme.secondary
                    font.pixelSize: Theme.px(13)
                    horizontalAlignment: Text.AlignHCenter
                    wrapMode: Text.WordWrap
                    Accessible.role: Accessible.StaticText
                    Accessible.name: text
                }
            }
            PrimaryButton {
                objectName: "finishButton"
                Layout.fillWidth: true
                title: qsTr("Finish")
                onClicked: view.finish()
            }
        }

        ProgressDots {
            id: dots
            objectName: "progressDots"
            Layout.alignment: Qt.AlignHCenter
            Layout.topMargin: Theme.px(16)
            visible: view.step !== OnboardingStep.Welcome
            step: view.step
        }
    }
}
