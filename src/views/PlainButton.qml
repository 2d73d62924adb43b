import QtQuick
import QtQuick.Controls.Basic

// A button without chrome: an optional symbol and a text, dimmed while pressed.
AbstractButton {
    id: button

    property string symbol
    property real symbolSize: 13
    property color color: Theme.primary
    property int pixelSize: 13
    property int weight: Font.Normal

    padding: 0
    spacing: 4
    focusPolicy: Qt.TabFocus
    opacity: down ? 0.6 : 1

    contentItem: Item {
        implicitWidth: row.implicitWidth
        implicitHeight: row.implicitHeight

        Row {
            id: row
            anchors.centerIn: parent
            spacing: button.spacing

            Symbol {
                anchors.verticalCenter: parent.verticalCenter
                visible: button.symbol.length > 0
                name: button.symbol
                size: button.symbolSize
                color: button.color
            }
            Text {
                anchors.verticalCenter: parent.verticalCenter
                visible: button.text.length > 0
                text: button.text
                color: button.color
                font.pixelSize: button.pixelSize
                font.weight: button.weight
            }
        }
    }
}
