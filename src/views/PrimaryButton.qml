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
    topPadding: 11
    bottomPadding: 11
    leftPadding: 12
    rightPadding: 12
    focusPolicy: Qt.TabFocus

    contentItem: Item {
        implicitWidth: row.implicitWidth
        implicitHeight: row.implicitHeight

        Row {
            id: row
            anchors.centerIn: parent
            spacing: 8

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
                font.pixelSize: 14
                font.weight: Font.DemiBold
            }
        }
    }

    background: Rectangle {
        objectName: "fill"
        radius: 11
        color: button.disabled ? Theme.alpha(Theme.brand, 0.4) : Theme.brand

        Rectangle {
            anchors.fill: parent
            radius: parent.radius
            color: "black"
            opacity: button.down ? 0.12 : 0
        }
    }
}
