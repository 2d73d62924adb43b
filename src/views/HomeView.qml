import QtQuick
import QtQuick.Controls.Basic
import QtQuick.Layouts
import Quillmar.Views

// The home page of a paired computer: connection state, pausing, shared folders and their
// access, the write-approval setting and the way to unpair; the agents' recent activity on a
// page of its own. Keeps no state but which of the two pages shows.
FocusScope {
    id: view

    // The recent-activity page is shown instead of the home page.
    property bool showingActivity: false

    objectName: "homeView"
    implicitWidth: Theme.px(460)
    implicitHeight: Theme.px(600)
    focus: true

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

    // From the top: header, statusCard, the folders section and the settings section, 20 apart;
    // at the bottom, below flexible space, the divider and the unpair button.
    ColumnLayout {
        id: page
        anchors.fill: parent
        anchors.margins: Theme.px(24)
        spacing: Theme.px(20)
        visible: !view.showingActivity

        // header
        RowLayout {
            id: header
            objectName: "header"
            Layout.fillWidth: true
            spacing: Theme.px(12)

            BrandLogo {
                objectName: "homeLogo"
                Layout.preferredWidth: Theme.px(40)
                Layout.preferredHeight: Theme.px(40)
            }
            ColumnLayout {
                Layout.fillWidth: true
                spacing: Theme.px(3)

                Text {
                    Layout.fillWidth: true
                    text: qsTr("Quillmar OS")
                    color: Theme.primary
                    font.pixelSize: Theme.px(17)
                    font.bold: true
                    elide: Text.ElideRight
                    Accessible.role: Accessible.Heading
                    Accessible.name: text
                }
                RowLayout {
                    Layout.fillWidth: true
                    spacing: Theme.px(6)

                    Rectangle {
                        objectName: "statusDot"
                        Layout.preferredWidth: Theme.px(7)
                        Layout.preferredHeight: Theme.px(7)
                        radius: width / 2
                        color: AppState.online ? Theme.brand : Theme.secondary
                    }
                    Text {
                        objectName: "connectionText"
                        Layout.fillWidth: true
                        text: AppState.online ? qsTr("Connected") : AppState.statusText
                        color: Theme.secondary
                        font.pixelSize: Theme.px(12)
                        elide: Text.ElideRight
                        Accessible.role: Accessible.StaticText
                        Accessible.name: text
                    }
                }
            }
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

        // statusCard
        Card {
            id: statusCard
            objectName: "statusCard"
            Layout.fillWidth: true

            contentItem: RowLayout {
                spacing: Theme.px(12)

                Item {
                    Layout.preferredWidth: Theme.px(24)
                    Layout.preferredHeight: statusSymbol.height
                    Layout.alignment: Qt.AlignTop

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
                ColumnLayout {
                    Layout.fillWidth: true
                    spacing: Theme.px(4)

                    Text {
                        objectName: "statusCardText"
                        Layout.fillWidth: true
                        text: AppState.paused
                              ? qsTr("Sharing is paused. Agents can't reach your folders until you resume.")
                              : AppState.online
                                ? qsTr("Your agents can reach the folders below. Every write asks for approval.")
                                : qsTr("Reconnecting to Quillmar — your shared folders resume automatically.")
                        color: Theme.secondary
                        font.pointSize: Typography.points(12.5 * Theme.scale)
                        wrapMode: Text.WordWrap
                        Accessible.role: Accessible.StaticText
                        Accessible.name: text
                    }
                    // Why it is not connected, when the bridge knows.
                    Text {
                        objectName: "problemText"
                        Layout.fillWidth: true
                        visible: text.length > 0 && !AppState.paused
                        text: AppState.connectionProblem
                        color: Theme.red
                        font.pointSize: Typography.points(12 * Theme.scale)
                        wrapMode: Text.WordWrap
                        Accessible.name: text
                    }
                    PillButton {
                        id: resumeButton
                        objectName: "resumeButton"
                        Layout.topMargin: Theme.px(4)
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

        // The folders section: its caption with the "Add" button, then folderList, which gives
        // way (and scrolls) when the page does not fit.
        ColumnLayout {
            Layout.fillWidth: true
            Layout.fillHeight: true
            Layout.maximumHeight: implicitHeight
            spacing: Theme.px(8)

            RowLayout {
                id: sectionRow
                Layout.fillWidth: true

                SectionLabel {
                    id: sharedFoldersLabel
                    Layout.fillWidth: true
                    text: qsTr("SHARED FOLDERS")
                }
                PlainButton {
                    id: addButton
                    objectName: "homeAddButton"
                    text: qsTr("Add")
                    symbol: "plus"
                    symbolSize: 12
                    color: Theme.brand
                    pixelSize: 12
                    weight: Font.Medium
                    Accessible.name: qsTr("Add a folder")
                    onClicked: AppState.addFolder()
                }
            }

            Card {
                id: noFoldersCard
                objectName: "noFoldersCard"
                Layout.fillWidth: true
                visible: folders.count === 0

                contentItem: RowLayout {
                    spacing: Theme.px(8)

                    Symbol {
                        name: "folder.badge.plus"
                        size: 16
                        color: Theme.secondary
                    }
                    Text {
                        Layout.fillWidth: true
                        text: qsTr("No folders shared yet — add one so agents can reach your files.")
                        color: Theme.secondary
                        font.pointSize: Typography.points(12.5 * Theme.scale)
                        wrapMode: Text.WordWrap
                        Accessible.role: Accessible.StaticText
                        Accessible.name: text
                    }
                }
            }

            ScrollingList {
                id: folderList
                objectName: "folderList"
                Layout.fillWidth: true
                Layout.fillHeight: true
                Layout.minimumHeight: Math.min(contentHeight, Theme.px(64))
                Layout.preferredHeight: contentHeight
                Layout.maximumHeight: contentHeight
                visible: folders.count > 0
                Accessible.name: qsTr("Shared folders")

                Repeater {
                    model: folders

                    FolderRow {
                        id: folderCard
                        Layout.fillWidth: true
                        showsAccess: true
                        onAccessChosen: readOnly => AppState.setFolderReadOnlyById(folderCard.folderId, readOnly)
                        onRemoveRequested: AppState.removeFolderById(folderCard.folderId)
                    }
                }
            }
        }

        // The settings section: its caption and approvalSwitch.
        ColumnLayout {
            id: settings
            Layout.fillWidth: true
            spacing: Theme.px(8)

            SectionLabel {
                text: qsTr("SETTINGS")
            }
            Card {
                id: approvalCard
                objectName: "approvalCard"
                Layout.fillWidth: true

                contentItem: RowLayout {
                    spacing: Theme.px(8)

                    ColumnLayout {
                        Layout.fillWidth: true
                        spacing: 2

                        Text {
                            id: approvalLabel
                            Layout.fillWidth: true
                            text: qsTr("Ask before writing files")
                            color: Theme.primary
                            font.pixelSize: Theme.px(13)
                            font.weight: Font.Medium
                            wrapMode: Text.WordWrap
                            Accessible.role: Accessible.StaticText
                            Accessible.name: text
                        }
                        Text {
                            objectName: "approvalNote"
                            Layout.fillWidth: true
                            text: qsTr("Confirm each write on this %1, on top of the in-app approval.").arg(Platform.device)
                            color: Theme.secondary
                            font.pixelSize: Theme.px(11)
                            wrapMode: Text.WordWrap
                            Accessible.role: Accessible.StaticText
                            Accessible.name: text
                        }
                    }
                    BrandSwitch {
                        id: approvalSwitch
                        objectName: "approvalSwitch"
                        checked: AppState.requireWriteApproval
                        Accessible.name: approvalLabel.text
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
                Layout.fillWidth: true
                text: AppState.fileAccessText
                color: Theme.secondary
                font.pixelSize: Theme.px(11)
                wrapMode: Text.WordWrap
                Accessible.name: text
            }
        }

        Item {
            Layout.fillHeight: true
        }

        Rectangle {
            objectName: "divider"
            Layout.fillWidth: true
            Layout.preferredHeight: 1
            color: Theme.separator
            opacity: Theme.dark ? 1 : 0.5
        }
        PlainButton {
            id: unpairButton
            objectName: "unpairButton"
            Layout.alignment: Qt.AlignHCenter
            Layout.topMargin: 2
            text: qsTr("Unpair this %1").arg(Platform.device)
            color: Theme.alpha(Theme.red, 0.85)
            pixelSize: 12
            weight: Font.Medium
            onClicked: AppState.unpair()
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
