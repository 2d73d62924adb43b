import QtQuick
import QtQuick.Controls.Basic

// A full-width bordered button with a symbol and a title, quieter than PrimaryButton.
Button {
    id: button

    property string symbol

    implicitHeight: 32
    focusPolicy: Qt.TabFocus

    contentItem: Item {
        Row {
            anchors.centerIn: parent
            spacing: 5

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
                font.pixelSize: 13
            }
        }
    }

    background: Rectangle {
        radius: 8
        color: button.down ? Qt.darker(Theme.controlBackground, 1.06) : Theme.controlBackground
        border.width: 1
        border.color: Theme.alpha(Theme.primary, 0.14)
    }
}
