import QtQuick

// featureRow(icon, title, subtitle): one line of the welcome page's list. As wide as its texts
// need, up to `maximumWidth`, beyond which the subtitle wraps.
Row {
    id: row

    property string icon
    property string title
    property string subtitle
    property real maximumWidth: 380

    readonly property real textWidth: Math.min(Math.max(titleText.implicitWidth, subtitleText.implicitWidth),
                                               maximumWidth - 26 - spacing)

    spacing: 12

    Item {
        anchors.verticalCenter: parent.verticalCenter
        width: 26
        height: symbol.height

        Symbol {
            id: symbol
            anchors.horizontalCenter: parent.horizontalCenter
            name: row.icon
            size: 18
            color: Theme.brand
        }
    }

    Column {
        anchors.verticalCenter: parent.verticalCenter
        width: row.textWidth
        spacing: 2

        Text {
            id: titleText
            width: parent.width
            text: row.title
            color: Theme.primary
            font.pixelSize: 13
            font.weight: Font.DemiBold
        }
        Text {
            id: subtitleText
            width: parent.width
            text: row.subtitle
            color: Theme.secondary
            font.pixelSize: 11
            wrapMode: Text.WordWrap
        }
    }
}
