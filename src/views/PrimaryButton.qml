import QtQuick
import QtQuick.Controls.Basic

// primaryButton(title, loading, disabled, action): the wide filled button of every onboarding
// page. `clicked` is the action.
Button {
    id: button

    property string title
    property bool loading: false
    property bool disabled: false

    text: title
    enabled: !disabled
    topPadding: Theme.px(11)
    bottomPadding: Theme.px(11)
    leftPadding: Theme.px(12)
    rightPadding: Theme.px(12)
    focusPolicy: Qt.TabFocus
    Accessible.name: title

    Keys.onReturnPressed: clicked()
    Keys.onEnterPressed: clicked()

    contentItem: Item {
        implicitWidth: row.implicitWidth
        implicitHeight: row.implicitHeight

        Row {
            id: row
            anchors.centerIn: parent
            spacing: Theme.px(8)

            Spinner {
                objectName: "spinner"
                anchors.verticalCenter: parent.verticalCenter
                visible: button.loading
                color: "white"
            }
            Text {
                anchors.verticalCenter: parent.verticalCenter
                text: button.title
                color: "white"
                font.pixelSize: Theme.px(14)
                font.weight: Font.DemiBold
            }
        }
    }

    background: Rectangle {
        objectName: "fill"
        radius: Theme.px(11)
        color: button.disabled ? Theme.alpha(Theme.brand, 0.4) : Theme.brand

        Rectangle {
            anchors.fill: parent
            radius: parent.radius
            color: "black"
            opacity: button.down ? 0.12 : button.hovered ? 0.06 : 0
        }
        FocusRing {
            shown: button.visualFocus
            radius: parent.radius + gap
        }
    }
}
