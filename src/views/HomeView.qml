import QtQuick
import QtQuick.Controls.Basic
import Quillmar.Views

// The home page of a paired computer: connection state, shared folders, the write-approval
// setting and the way to unpair. Keeps no state of its own.
Item {
    id: view

    objectName: "homeView"
    implicitWidth: 460
    implicitHeight: 600

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
                width: parent.width - 52
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
                        name: AppState.online ? "checkmark.shield.fill" : "shield.slash"
                        size: 20
                        color: AppState.online ? Theme.brand : Theme.secondary
                    }
                }
                Column {
                    width: statusCard.availableWidth - 36
                    spacing: 4

                    Text {
                        objectName: "statusCardText"
                        width: parent.width
                        text: AppState.online
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
                        visible: text.length > 0
                        text: AppState.connectionProblem
                        color: Theme.red
                        font.pointSize: Typography.points(12)
                        wrapMode: Text.WordWrap
                        Accessible.name: text
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
                            width: folderCard.availableWidth - folderSymbol.width - removeButton.width - 16
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
}
