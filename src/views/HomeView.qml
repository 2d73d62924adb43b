import QtQuick
import QtQuick.Controls.Basic
import Quillmar.Views

// The home page of a paired computer: connection state, pausing, shared folders and their
// access, the write-approval setting and the way to unpair; the agents' recent activity on a
// page of its own. Keeps no state but which of the two pages shows.
Item {
    id: view

    // The recent-activity page is shown instead of the home page.
    property bool showingActivity: false

    objectName: "homeView"
    implicitWidth: 460
    implicitHeight: 600

    // The keyboard focus follows to the other page; shown as a ring only when the user came by
    // keyboard.
    function showActivity() {
        const byKeyboard = activityButton.visualFocus
        showingActivity = true
        activityPage.focusFirst(byKeyboard ? Qt.TabFocusReason : Qt.OtherFocusReason)
    }
    function showHome(byKeyboard) {
        showingActivity = false
        activityButton.forceActiveFocus(byKeyboard ? Qt.TabFocusReason : Qt.OtherFocusReason)
    }

    SharedFolderListModel {
        id: folders
    }

    WindowBackground {
        tint: 0.05
    }

    // From the top: header, statusCard, the folders section and the settings section, 20 apart.
    Column {
        id: page
        x: 24
        y: 24
        width: parent.width - 48
        spacing: 20
        visible: !view.showingActivity

        // header
        Row {
            id: header
            objectName: "header"
            width: parent.width
            spacing: 12

            BrandLogo {
                objectName: "homeLogo"
                anchors.verticalCenter: parent.verticalCenter
                width: 40
                height: 40
            }
            Column {
                anchors.verticalCenter: parent.verticalCenter
                width: parent.width - 52 - headerButtons.width - 12
                spacing: 3

                Text {
                    text: "Quillmar OS"
                    color: Theme.primary
                    font.pixelSize: 17
                    font.bold: true
                }
                Row {
                    width: parent.width
                    spacing: 6

                    Rectangle {
                        objectName: "statusDot"
                        anchors.verticalCenter: parent.verticalCenter
                        width: 7
                        height: 7
                        radius: 3.5
                        color: AppState.online ? Theme.brand : Theme.secondary
                    }
                    Text {
                        objectName: "connectionText"
                        width: parent.width - 13
                        text: AppState.online ? "Connected" : AppState.statusText
                        color: Theme.secondary
                        font.pixelSize: 12
                        elide: Text.ElideRight
                    }
                }
            }
            Row {
                id: headerButtons
                anchors.verticalCenter: parent.verticalCenter
                spacing: 6

                PillButton {
                    id: activityButton
                    objectName: "activityButton"
                    symbol: "clock.arrow.circlepath"
                    text: qsTr("Activity")
                    Accessible.name: qsTr("Recent activity")
                    onClicked: view.showActivity()
                }
                PillButton {
                    id: pauseButton
                    objectName: "pauseButton"
                    symbol: AppState.paused ? "play.fill" : "pause.fill"
                    text: AppState.paused ? qsTr("Resume") : qsTr("Pause")
                    Accessible.name: AppState.paused ? qsTr("Resume sharing") : qsTr("Pause sharing")
                    ToolTip.text: AppState.paused
                                  ? qsTr("Let agents reach your shared folders again")
                                  : qsTr("Stop agents from reaching your shared folders until you resume")
                    ToolTip.visible: hovered
                    ToolTip.delay: 600
                    onClicked: AppState.setPaused(!AppState.paused)
                }
            }
        }

        // statusCard
        Card {
            id: statusCard
            objectName: "statusCard"
            width: parent.width

            contentItem: Row {
                spacing: 12

                Item {
                    width: 24
                    height: statusSymbol.height

                    Symbol {
                        id: statusSymbol
                        objectName: "statusSymbol"
                        anchors.horizontalCenter: parent.horizontalCenter
                        name: AppState.paused ? "pause.circle.fill"
                                              : AppState.online ? "checkmark.shield.fill" : "shield.slash"
                        size: 20
                        color: AppState.paused ? Theme.alpha(Theme.primary, 0.7)
                                               : AppState.online ? Theme.brand : Theme.secondary
                    }
                }
                Column {
                    width: statusCard.availableWidth - 36
                    spacing: 4

                    Text {
                        objectName: "statusCardText"
                        width: parent.width
                        text: AppState.paused
                              ? qsTr("Sharing is paused. Agents can't reach your folders until you resume.")
                              : AppState.online
                                ? "Your agents can reach the folders below. Every write asks for approval."
                                : "Reconnecting to Quillmar — your shared folders resume automatically."
                        color: Theme.secondary
                        font.pointSize: Typography.points(12.5)
                        wrapMode: Text.WordWrap
                    }
                    // Why it is not connected, when the bridge knows.
                    Text {
                        objectName: "problemText"
                        width: parent.width
                        visible: text.length > 0 && !AppState.paused
                        text: AppState.connectionProblem
                        color: Theme.red
                        font.pointSize: Typography.points(12)
                        wrapMode: Text.WordWrap
                        Accessible.name: text
                    }
                    Item {
                        width: 1
                        height: 4
                        visible: AppState.paused
                    }
                    PillButton {
                        id: resumeButton
                        objectName: "resumeButton"
                        visible: AppState.paused
                        symbol: "play.fill"
                        text: qsTr("Resume sharing")
                        color: "white"
                        fill: Theme.brand
                        border: Theme.brandDeep
                        onClicked: AppState.setPaused(false)
                    }
                }
            }
        }

        // The folders section: its caption with the "Add" button, then foldersList.
        Column {
            width: parent.width
            spacing: 8

            Item {
                id: sectionRow
                width: parent.width
                height: Math.max(sharedFoldersLabel.height, addButton.height)

                SectionLabel {
                    id: sharedFoldersLabel
                    anchors.verticalCenter: parent.verticalCenter
                    text: "SHARED FOLDERS"
                }
                PlainButton {
                    id: addButton
                    objectName: "homeAddButton"
                    anchors.right: parent.right
                    anchors.verticalCenter: parent.verticalCenter
                    text: "Add"
                    symbol: "plus"
                    symbolSize: 12
                    color: Theme.brand
                    pixelSize: 12
                    weight: Font.Medium
                    onClicked: AppState.addFolder()
                }
            }

            Card {
                id: noFoldersCard
                objectName: "noFoldersCard"
                width: parent.width
                visible: folders.count === 0

                contentItem: Row {
                    spacing: 8

                    Symbol {
                        id: noFoldersSymbol
                        anchors.verticalCenter: parent.verticalCenter
                        name: "folder.badge.plus"
                        size: 16
                        color: Theme.secondary
                    }
                    Text {
                        anchors.verticalCenter: parent.verticalCenter
                        width: noFoldersCard.availableWidth - noFoldersSymbol.width - 8
                        text: "No folders shared yet — add one so agents can reach your files."
                        color: Theme.secondary
                        font.pointSize: Typography.points(12.5)
                        wrapMode: Text.WordWrap
                    }
                }
            }

            ListView {
                id: folderList
                objectName: "folderList"
                width: parent.width
                // As tall as the cards; when they do not fit above the settings and the unpair
                // button, the list scrolls.
                height: Math.min(contentHeight, view.height - 48 - bottom.height - 40 - header.height
                                 - statusCard.height - settings.height - 3 * page.spacing
                                 - sectionRow.height - 8)
                visible: folders.count > 0
                model: folders
                spacing: 8
                clip: true
                boundsBehavior: Flickable.StopAtBounds
                ScrollBar.vertical: ScrollBar {}

                delegate: Card {
                    id: folderCard

                    required property string folderId
                    required property string name
                    required property string path
                    required property bool readOnly

                    width: ListView.view.width

                    contentItem: Row {
                        spacing: 8

                        Symbol {
                            id: folderSymbol
                            anchors.verticalCenter: parent.verticalCenter
                            name: "folder.fill"
                            size: 15
                            color: Theme.brand
                        }
                        Column {
                            anchors.verticalCenter: parent.verticalCenter
                            width: folderCard.availableWidth - folderSymbol.width - accessToggle.width
                                   - removeButton.width - 24
                            spacing: 2

                            Text {
                                width: parent.width
                                text: folderCard.name
                                color: Theme.primary
                                font.pixelSize: 13
                                font.weight: Font.Medium
                                elide: Text.ElideRight
                            }
                            Text {
                                objectName: "folderPath"
                                width: parent.width
                                text: folderCard.path
                                color: Theme.secondary
                                font.pixelSize: 11
                                elide: Text.ElideMiddle
                                maximumLineCount: 1
                            }
                        }
                        AccessToggle {
                            id: accessToggle
                            objectName: "accessToggle"
                            anchors.verticalCenter: parent.verticalCenter
                            folderName: folderCard.name
                            checked: folderCard.readOnly
                            // Stores the access; the binding is put back so that the toggle keeps
                            // following the state (the tray menu changes it too).
                            onToggled: {
                                AppState.setFolderReadOnlyById(folderCard.folderId, checked)
                                checked = Qt.binding(() => folderCard.readOnly)
                            }
                        }
                        PlainButton {
                            id: removeButton
                            objectName: "removeFolderButton"
                            anchors.verticalCenter: parent.verticalCenter
                            readonly property string helpText: "Stop sharing this folder"
                            symbol: "xmark.circle.fill"
                            symbolSize: 15
                            color: Theme.tertiary
                            hoverEnabled: true
                            ToolTip.text: helpText
                            ToolTip.visible: hovered
                            ToolTip.delay: 600
                            onClicked: AppState.removeFolderById(folderCard.folderId)
                        }
                    }
                }
            }
        }

        // The settings section: its caption and approvalToggle.
        Column {
            id: settings
            width: parent.width
            spacing: 8

            SectionLabel {
                text: "SETTINGS"
            }
            Card {
                id: approvalCard
                objectName: "approvalCard"
                width: parent.width

                contentItem: Row {
                    spacing: 8

                    Column {
                        anchors.verticalCenter: parent.verticalCenter
                        width: approvalCard.availableWidth - approvalSwitch.width - 8
                        spacing: 2

                        Text {
                            width: parent.width
                            text: "Ask before writing files"
                            color: Theme.primary
                            font.pixelSize: 13
                            font.weight: Font.Medium
                        }
                        Text {
                            objectName: "approvalNote"
                            width: parent.width
                            text: "Confirm each write on this " + Platform.device + ", on top of the in-app approval."
                            color: Theme.secondary
                            font.pixelSize: 11
                            wrapMode: Text.WordWrap
                        }
                    }
                    BrandSwitch {
                        id: approvalSwitch
                        objectName: "approvalSwitch"
                        anchors.verticalCenter: parent.verticalCenter
                        checked: AppState.requireWriteApproval
                        // Stores the setting and refreshes the tray menu; then the binding is put
                        // back, so that the switch keeps following the state.
                        onToggled: {
                            AppState.storeRequireWriteApproval(checked)
                            checked = Qt.binding(() => AppState.requireWriteApproval)
                        }
                    }
                }
            }
            // Which protection keeps agents inside the shared folders on this computer.
            Text {
                objectName: "fileAccessLine"
                width: parent.width
                text: AppState.fileAccessText
                color: Theme.secondary
                font.pixelSize: 11
                wrapMode: Text.WordWrap
                Accessible.name: text
            }
        }
    }

    // At the bottom, below flexible space: the divider and the unpair button.
    Column {
        id: bottom
        visible: !view.showingActivity
        x: 24
        anchors.bottom: parent.bottom
        anchors.bottomMargin: 24
        width: parent.width - 48
        spacing: 20

        Rectangle {
            objectName: "divider"
            width: parent.width
            height: 1
            color: Theme.separator
            opacity: 0.5
        }
        Item {
            width: parent.width
            height: unpairButton.height + 2

            PlainButton {
                id: unpairButton
                objectName: "unpairButton"
                y: 2
                anchors.horizontalCenter: parent.horizontalCenter
                text: "Unpair this " + Platform.device
                color: Theme.alpha(Theme.red, 0.85)
                pixelSize: 12
                weight: Font.Medium
                onClicked: AppState.unpair()
            }
        }
    }

    ActivityView {
        id: activityPage
        objectName: "activityView"
        anchors.fill: parent
        visible: view.showingActivity
        onBack: byKeyboard => view.showHome(byKeyboard)
    }
}
