import QtQuick
import QtQuick.Controls.Basic
import Quillmar.Views

// The onboarding flow: welcome, pairing code, folders to share, done. Keeps its step and the
// typed code for as long as it exists, so a closed and reopened window resumes where it was.
Item {
    id: view

    // onFinish: the done page's button; the root view then shows the home page.
    signal finish

    property int step: OnboardingStep.Welcome
    // The pairing code as typed, already normalised.
    property alias code: codeField.text

    function submitPair() {
        if (!PairingCode.isComplete(code))
            return
        if (AppState.pairing)
            return
        AppState.pair(code)
    }

    function doneMessage(count) {
        if (count > 0)
            return "This " + Platform.device + " is paired and " + count + " folder" + (count === 1 ? "" : "s") + " "
                    + (count === 1 ? "is" : "are") + " shared. Quillmar lives in " + Platform.iconHome + "."
        return "This " + Platform.device + " is paired. Add folders anytime from " + Platform.iconReach
                + " to let agents reach your files."
    }

    objectName: "onboardingView"
    implicitWidth: 460
    implicitHeight: 600

    // Someone who opens onboarding while already paired never sees the welcome or pair page.
    Component.onCompleted: {
        if (AppState.paired)
            step = folders.count > 0 ? OnboardingStep.Done : OnboardingStep.Folders
    }

    onStepChanged: {
        if (step === OnboardingStep.Pair)
            codeField.forceActiveFocus()
    }

    // A successful pairing moves the flow on; submitPair() itself never does.
    Connections {
        target: AppState
        function onPairedChanged() {
            if (AppState.paired && view.step === OnboardingStep.Pair)
                view.step = OnboardingStep.Folders
            // Paired all along, once the keyring could be read: as when opened already paired.
            else if (AppState.paired && view.step === OnboardingStep.Welcome)
                view.step = folders.count > 0 ? OnboardingStep.Done : OnboardingStep.Folders
        }
    }

    SharedFolderListModel {
        id: folders
    }

    WindowBackground {
        tint: 0.06
    }

    // content: 36 from the top and bottom, 40 from the sides, above the step indicator. Each page
    // sits at the bottom of this area: flexible space above, none below.
    Item {
        id: content
        objectName: "onboardingContent"
        x: 40
        y: 36
        width: parent.width - 80
        height: parent.height - 72 - (dots.visible ? dots.height + 16 : 0)

        // welcomeStep
        Column {
            objectName: "welcomeStep"
            anchors.bottom: parent.bottom
            width: parent.width
            spacing: 24
            visible: view.step === OnboardingStep.Welcome

            BrandLogo {
                objectName: "welcomeLogo"
                anchors.horizontalCenter: parent.horizontalCenter
                width: 92
                height: 92
            }
            Column {
                width: parent.width
                spacing: 8

                Text {
                    anchors.horizontalCenter: parent.horizontalCenter
                    text: "Quillmar OS"
                    color: Theme.primary
                    font.pixelSize: 26
                    font.bold: true
                }
                Text {
                    objectName: "welcomeSubtitle"
                    x: 8
                    width: parent.width - 16
                    text: "Give your AI workforce secure access to files on this " + Platform.device
                          + " — read, summarise, and draft, with your approval."
                    color: Theme.secondary
                    font.pixelSize: 13
                    horizontalAlignment: Text.AlignHCenter
                    wrapMode: Text.WordWrap
                }
            }
            FeatureRow {
                objectName: "filesStayRow"
                anchors.horizontalCenter: parent.horizontalCenter
                maximumWidth: parent.width
                icon: "lock.shield"
                title: "Files stay on your " + Platform.device
                subtitle: "Only the bytes an agent reads are sent — nothing is uploaded."
            }
            FeatureRow {
                anchors.horizontalCenter: parent.horizontalCenter
                maximumWidth: parent.width
                icon: "folder"
                title: "You choose the folders"
                subtitle: "Share exactly what you want. Revoke anytime."
            }
            FeatureRow {
                anchors.horizontalCenter: parent.horizontalCenter
                maximumWidth: parent.width
                icon: "checkmark.seal"
                title: "Every write is approved"
                subtitle: "Agents can't change files without your OK."
            }
            // Shown when the keyring could not be read at start: pairing again would be wrong
            // for a computer that is paired, so unlocking and reading again comes first.
            Column {
                objectName: "keyringNotice"
                width: parent.width
                spacing: 8
                visible: AppState.keyringProblem !== ""

                Text {
                    objectName: "keyringProblemText"
                    width: parent.width
                    text: AppState.keyringProblem
                    color: Theme.red
                    font.pixelSize: 12
                    horizontalAlignment: Text.AlignHCenter
                    wrapMode: Text.WordWrap
                }
                SecondaryButton {
                    objectName: "keyringRetryButton"
                    width: parent.width
                    text: "Try Again"
                    symbol: "arrow.clockwise"
                    onClicked: AppState.retryKeyring()
                }
            }
            PrimaryButton {
                objectName: "getStartedButton"
                width: parent.width
                title: "Get Started"
                onClicked: view.step = OnboardingStep.Pair
            }
        }

        // pairStep
        Column {
            objectName: "pairStep"
            anchors.bottom: parent.bottom
            width: parent.width
            spacing: 20
            visible: view.step === OnboardingStep.Pair

            StepHeader {
                objectName: "pairHeader"
                width: parent.width
                icon: "link.circle.fill"
                title: "Pair this " + Platform.device
                subtitle: "In Quillmar on the web, open Connectors → Local Files → Generate pairing code, then enter it here."
            }
            Column {
                objectName: "codeBlock"
                width: parent.width
                spacing: 8

                TextField {
                    id: codeField
                    objectName: "codeField"
                    width: parent.width
                    topPadding: 14
                    bottomPadding: 14
                    leftPadding: 12
                    rightPadding: 12
                    placeholderText: "XXXXXXXX"
                    placeholderTextColor: Theme.tertiary
                    color: Theme.primary
                    selectionColor: Theme.alpha(Theme.brand, 0.35)
                    selectedTextColor: Theme.primary
                    font.family: Typography.monospaceFamily
                    font.pixelSize: 26
                    font.weight: Font.DemiBold
                    horizontalAlignment: TextInput.AlignHCenter
                    inputMethodHints: Qt.ImhPreferUppercase | Qt.ImhNoPredictiveText
                    selectByMouse: true

                    background: Rectangle {
                        radius: 12
                        color: Theme.controlBackground
                        border.width: 1
                        border.color: Theme.alpha(Theme.brand, 0.4)
                    }

                    // Upper case, letters and digits only, at most eight: whatever is typed or
                    // pasted.
                    onTextChanged: {
                        const normalised = PairingCode.normalise(text)
                        if (normalised !== text)
                            text = normalised
                    }
                    onAccepted: view.submitPair()
                }
                Text {
                    objectName: "pairErrorText"
                    width: parent.width
                    visible: AppState.hasPairError
                    text: AppState.pairError
                    color: Theme.red
                    font.pixelSize: 10
                    horizontalAlignment: Text.AlignHCenter
                    wrapMode: Text.WordWrap
                }
            }
            PrimaryButton {
                objectName: "pairButton"
                width: parent.width
                title: AppState.pairing ? "Pairing…" : "Pair"
                loading: AppState.pairing
                disabled: !PairingCode.isComplete(view.code) || AppState.pairing
                onClicked: view.submitPair()
            }
            PlainButton {
                objectName: "backButton"
                anchors.horizontalCenter: parent.horizontalCenter
                text: "Back"
                color: Theme.secondary
                onClicked: view.step = OnboardingStep.Welcome
            }
        }

        // foldersStep
        Column {
            id: foldersPage
            objectName: "foldersStep"
            anchors.bottom: parent.bottom
            width: parent.width
            spacing: 18
            visible: view.step === OnboardingStep.Folders

            StepHeader {
                id: foldersHeader
                width: parent.width
                icon: "folder.fill.badge.plus"
                title: "Choose folders to share"
                subtitle: "Agents can read and write only inside the folders you add here."
            }
            Column {
                objectName: "noFoldersPlaceholder"
                width: parent.width
                topPadding: 24
                bottomPadding: 24
                spacing: 8
                visible: folders.count === 0

                Symbol {
                    anchors.horizontalCenter: parent.horizontalCenter
                    name: "tray"
                    size: 28
                    color: Theme.tertiary
                }
                Text {
                    anchors.horizontalCenter: parent.horizontalCenter
                    text: "No folders shared yet"
                    color: Theme.secondary
                    font.pixelSize: 12
                }
            }
            ListView {
                id: folderList
                objectName: "folderList"
                width: parent.width
                // As tall as the rows, scrolling once they no longer fit above the buttons.
                height: Math.min(contentHeight, content.height - foldersHeader.height - addFolderButton.height
                                 - foldersContinueButton.height - 4 * foldersPage.spacing)
                visible: folders.count > 0
                model: folders
                spacing: 6
                clip: true
                boundsBehavior: Flickable.StopAtBounds
                ScrollBar.vertical: ScrollBar {}

                delegate: Item {
                    id: folderRow

                    required property string folderId
                    required property string name
                    required property string path

                    width: ListView.view.width
                    height: rowBackground.height

                    Rectangle {
                        id: rowBackground
                        anchors.horizontalCenter: parent.horizontalCenter
                        width: rowContent.width + 20
                        height: rowContent.height + 20
                        radius: 10
                        color: Theme.controlBackground

                        Row {
                            id: rowContent
                            x: 10
                            y: 10
                            spacing: 10

                            Symbol {
                                id: folderSymbol
                                anchors.verticalCenter: parent.verticalCenter
                                name: "folder.fill"
                                color: Theme.brand
                            }
                            Column {
                                anchors.verticalCenter: parent.verticalCenter
                                // As wide as the texts, or what is left of the page's width.
                                width: Math.min(Math.max(nameText.implicitWidth, pathText.implicitWidth),
                                                folderRow.width - 20 - 2 * rowContent.spacing
                                                - folderSymbol.width - removeButton.width)
                                spacing: 2

                                Text {
                                    id: nameText
                                    width: parent.width
                                    text: folderRow.name
                                    color: Theme.primary
                                    font.pixelSize: 13
                                    font.weight: Font.Medium
                                    elide: Text.ElideRight
                                }
                                Text {
                                    id: pathText
                                    objectName: "folderPath"
                                    width: parent.width
                                    text: folderRow.path
                                    color: Theme.secondary
                                    font.pixelSize: 13
                                    elide: Text.ElideMiddle
                                    maximumLineCount: 1
                                }
                            }
                            PlainButton {
                                id: removeButton
                                objectName: "removeFolderButton"
                                anchors.verticalCenter: parent.verticalCenter
                                symbol: "xmark.circle.fill"
                                color: Theme.secondary
                                onClicked: AppState.removeFolderById(folderRow.folderId)
                            }
                        }
                    }
                }
            }
            SecondaryButton {
                id: addFolderButton
                objectName: "addFolderButton"
                width: parent.width
                text: "Add Folder…"
                symbol: "plus"
                onClicked: AppState.addFolder()
            }
            PrimaryButton {
                id: foldersContinueButton
                objectName: "foldersContinueButton"
                width: parent.width
                title: folders.count === 0 ? "Skip for now" : "Continue"
                onClicked: view.step = OnboardingStep.Done
            }
        }

        // doneStep
        Column {
            objectName: "doneStep"
            anchors.bottom: parent.bottom
            width: parent.width
            spacing: 22
            visible: view.step === OnboardingStep.Done

            Rectangle {
                anchors.horizontalCenter: parent.horizontalCenter
                width: 96
                height: 96
                radius: 48
                color: Theme.alpha(Theme.brand, 0.15)

                Symbol {
                    anchors.centerIn: parent
                    name: "checkmark"
                    size: 40
                    bold: true
                    color: Theme.brandDeep
                }
            }
            Column {
                width: parent.width
                spacing: 10

                Text {
                    anchors.horizontalCenter: parent.horizontalCenter
                    text: "You're all set"
                    color: Theme.primary
                    font.pixelSize: 24
                    font.bold: true
                }
                Text {
                    objectName: "doneMessage"
                    width: parent.width
                    text: view.doneMessage(folders.count)
                    color: Theme.secondary
                    font.pixelSize: 13
                    horizontalAlignment: Text.AlignHCenter
                    wrapMode: Text.WordWrap
                }
            }
            PrimaryButton {
                objectName: "finishButton"
                width: parent.width
                title: "Finish"
                onClicked: view.finish()
            }
        }
    }

    ProgressDots {
        id: dots
        objectName: "progressDots"
        anchors.horizontalCenter: parent.horizontalCenter
        anchors.bottom: parent.bottom
        anchors.bottomMargin: 36
        visible: view.step !== OnboardingStep.Welcome
        step: view.step
    }
}
