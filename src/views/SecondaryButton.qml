import QtQuick
import QtQuick.Controls.Basic

// A full-width bordered button with a symbol and a title, quieter than PrimaryButton.
Button {
    id: button

    property string symbol

    implicitHeight: Math.max(Theme.px(32), row.implicitHeight + Theme.px(12))
    focusPolicy: Qt.TabFocus

    Keys.onReturnPressed: clicked()
    Keys.onEnterPressed: clicked()

    contentItem: Item {
        Row {
            id: row
            anchors.centerIn: parent
            spacing: Theme.px(5)

            Symbol {
                anchors.verticalCenter: parent.verticalCenter
                name: button.symbol
                size: 13
                color: Theme.primary
            }
            Text {
                anchors.verticalCenter: parent.verticalCenter
                text: button.text
                color: Theme.primary
                font.pixelSize: Theme.px(13)
            }
        }
    }

    background: Rectangle {
        radius: Theme.px(8)
        color: button.down ? Qt.darker(Theme.controlBackground, 1.06)
                           : button.hovered ? Qt.tint(Theme.controlBackground, Theme.alpha(Theme.primary, 0.05))
                                            : Theme.controlBackground
        border.width: 1
        border.color: Theme.alpha(Theme.primary, 0.14)

        FocusRing {
            shown: button.visualFocus
            radius: parent.radius + gap
        }
    }
}
