import QtQuick
import QtQuick.Layouts

// featureRow(icon, title, subtitle): one line of the welcome page's list. As wide as its texts
// need, up to the width its layout gives it (Layout.maximumWidth), beyond which the subtitle
// wraps.
RowLayout {
    id: row

    property string icon
    property string title
    property string subtitle

    spacing: Theme.px(12)

    Item {
        Layout.preferredWidth: Theme.px(26)
        Layout.preferredHeight: symbol.height

        Symbol {
            id: symbol
            anchors.horizontalCenter: parent.horizontalCenter
            name: row.icon
            size: 18
            color: Theme.brand
        }
    }

    ColumnLayout {
        Layout.fillWidth: true
        spacing: 2

        Text {
            Layout.fillWidth: true
            text: row.title
            color: Theme.primary
            font.pixelSize: Theme.px(13)
            font.weight: Font.DemiBold
            wrapMode: Text.WordWrap
            Accessible.role: Accessible.StaticText
            Accessible.name: text
        }
        Text {
            Layout.fillWidth: true
            text: row.subtitle
            color: Theme.secondary
            font.pixelSize: Theme.px(11)
            wrapMode: Text.WordWrap
            Accessible.role: Accessible.StaticText
            Accessible.name: text
        }
    }
}
