import QtQuick

// stepHeader(icon, title, subtitle): the top of the pair and folders pages, centred.
Column {
    id: header

    property string icon
    property string title
    property string subtitle

    spacing: 8

    Symbol {
        anchors.horizontalCenter: parent.horizontalCenter
        name: header.icon
        size: 34
        color: Theme.brand
    }
    Text {
        anchors.horizontalCenter: parent.horizontalCenter
        text: header.title
        color: Theme.primary
        font.pixelSize: 20
        font.bold: true
    }
    Text {
        width: header.width
        text: header.subtitle
        color: Theme.secondary
        font.pixelSize: 12
        horizontalAlignment: Text.AlignHCenter
        wrapMode: Text.WordWrap
    }
}
