import QtQuick
import QtQuick.Layouts

// stepHeader(icon, title, subtitle): the top of the pair and folders pages, centred.
ColumnLayout {
    id: header

    property string icon
    property string title
    property string subtitle

    spacing: Theme.px(8)

    Symbol {
        Layout.alignment: Qt.AlignHCenter
        name: header.icon
        size: 34
        color: Theme.brand
    }
    Text {
        Layout.fillWidth: true
        text: header.title
        color: Theme.primary
        font.pixelSize: Theme.px(20)
        font.bold: true
        horizontalAlignment: Text.AlignHCenter
        wrapMode: Text.WordWrap
        Accessible.role: Accessible.Heading
        Accessible.name: text
    }
    Text {
        Layout.fillWidth: true
        text: header.subtitle
        color: Theme.secondary
        font.pixelSize: Theme.px(12)
        horizontalAlignment: Text.AlignHCenter
        wrapMode: Text.WordWrap
        Accessible.role: Accessible.StaticText
        Accessible.name: text
    }
}
