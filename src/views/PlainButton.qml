import QtQuick
import QtQuick.Controls.Basic

// A button without chrome, styled as a link: an optional symbol and a text, underlined (text) or
// lightly backed (symbol only) under the pointer, dimmed while pressed. A symbol-only button
// needs an Accessible.name from its caller.
AbstractButton {
    id: button

    property string symbol
    property real symbolSize: 13
    property color color: Theme.primary
    property int pixelSize: 13
    property int weight: Font.Normal

    padding: 0
    spacing: Theme.px(4)
    focusPolicy: Qt.TabFocus
    hoverEnabled: true
    opacity: down ? 0.6 : 1
    Accessible.role: Accessible.Button
    Accessible.name: text

    Keys.onReturnPressed: clicked()
    Keys.onEnterPressed: clicked()

    HoverHandler {
        cursorShape: Qt.PointingHandCursor
    }

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
                font.pixelSize: Theme.px(button.pixelSize)
                font.weight: button.weight
                font.underline: button.hovered
            }
        }
    }

    background: Item {
        Rectangle {
            anchors.fill: parent
            anchors.margins: -Theme.px(3)
            radius: height / 2
            visible: button.hovered && button.text.length === 0
            color: Theme.alpha(Theme.primary, 0.08)
        }
        FocusRing {
            shown: button.visualFocus
            radius: height / 2
        }
    }
}
