import QtQuick
import QtQuick.Controls.Basic
import QtQuick.Layouts

// A vertical list of rows (its children, each with Layout.fillWidth) that scrolls once they do
// not fit, with its scroll bar shown all the while, and brings a row into view when the keyboard
// reaches a control in it. Every row is made, so Tab reaches each one.
Flickable {
    id: list

    default property alias rows: column.data
    property alias spacing: column.spacing
    readonly property bool overflows: contentHeight > height + 0.5
    readonly property alias scrollBar: bar

    // Scrolls as little as needed for `row`, an item of the list, to be seen whole.
    function reveal(row) {
        const top = row.mapToItem(column, 0, 0).y
        const bottom = top + row.height
        if (top < contentY)
            contentY = Math.max(0, top)
        else if (bottom > contentY + height)
            contentY = Math.min(bottom - height, contentHeight - height)
    }

    // The row that holds `item`, or null when it is not in the list.
    function rowOf(item) {
        for (let depth = 0; item && depth < 64; ++depth) {
            if (item.parent === column)
                return item
            item = item.parent
        }
        return null
    }

    implicitHeight: contentHeight
    contentWidth: width
    contentHeight: column.implicitHeight
    clip: true
    boundsBehavior: Flickable.StopAtBounds
    flickableDirection: Flickable.VerticalFlick
    Accessible.role: Accessible.List

    ScrollBar.vertical: ScrollBar {
        id: bar
        objectName: "listScrollBar"
        // Shown all the while there is more to see, and not at all otherwise.
        policy: ScrollBar.AlwaysOn
        visible: list.overflows
        Accessible.name: list.Accessible.name
    }

    Connections {
        target: list.Window.window
        function onActiveFocusItemChanged() {
            const row = list.rowOf(list.Window.activeFocusItem)
            if (row)
                list.reveal(row)
        }
    }

    ColumnLayout {
        id: column
        width: list.width - (list.overflows ? bar.width + Theme.px(4) : 0)
        spacing: Theme.px(8)
    }
}
