import QtQuick
import QtQuick.Controls.Basic

// A switch without a visible label, tinted with the brand colour when on.
Switch {
    id: control

    implicitWidth: indicator.implicitWidth
    implicitHeight: indicator.implicitHeight
    padding: 0
    spacing: 0
    focusPolicy: Qt.TabFocus

    indicator: Rectangle {
        implicitWidth: 36
        implicitHeight: 20
        x: control.leftPadding
        y: control.topPadding + (control.availableHeight - height) / 2
        radius: height / 2
        color: control.checked ? Theme.brand : Theme.alpha(Theme.primary, 0.14)
        border.width: 1
        border.color: control.checked ? Theme.alpha(Theme.brandDeep, 0.5) : Theme.alpha(Theme.primary, 0.1)

        Behavior on color {
            ColorAnimation {
                duration: 150
            }
        }

        Rectangle {
            width: 16
            height: 16
            radius: 8
            y: 2
            x: control.checked ? parent.width - width - 2 : 2
            color: control.down ? "#f2f2f2" : "white"
            border.width: 1
            border.color: Theme.alpha("black", 0.08)

            Behavior on x {
                NumberAnimation {
                    duration: 150
                    easing.type: Easing.OutCubic
                }
            }
        }
    }

    contentItem: Item {}
}
