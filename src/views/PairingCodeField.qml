import QtQuick
import QtQuick.Controls.Basic
import Quillmar.Views

// The field the pairing code is typed into. Keeps the code normalised (PairingCode) as it is
// typed without losing the caret or the undo history: typed characters are upper-cased or
// dropped before the field sees them, and only what arrives otherwise (a paste, an input
// method, a program) is rewritten. Enter submits.
TextField {
    id: field

    // Enter or Return in the field.
    signal submitted

    // Normalises what came in by other ways than typing, keeping the caret where it was.
    function normaliseText() {
        const normalised = PairingCode.normalise(text)
        if (normalised === text)
            return
        // The caret stays after the same characters it followed.
        const caret = PairingCode.normalise(text.slice(0, cursorPosition)).length
        text = normalised
        cursorPosition = caret
    }

    // At the caret, as the keyboard opens it.
    function openContextMenu() {
        contextMenu.popup(field, cursorRectangle.x, cursorRectangle.y + cursorRectangle.height)
    }

    topPadding: Theme.px(14)
    bottomPadding: Theme.px(14)
    leftPadding: Theme.px(12)
    rightPadding: Theme.px(12)
    // The style's own placeholder hides while a centred field has the focus; the one drawn below
    // stays until typing starts. This one remains for assistive technology.
    placeholderText: "XXXXXXXX"
    placeholderTextColor: "transparent"
    color: Theme.primary
    selectionColor: Theme.alpha(Theme.brand, 0.35)
    selectedTextColor: Theme.primary
    font.family: Typography.monospaceFamily
    font.pixelSize: Theme.px(26)
    font.weight: Font.DemiBold
    horizontalAlignment: TextInput.AlignHCenter
    inputMethodHints: Qt.ImhPreferUppercase | Qt.ImhNoPredictiveText
    selectByMouse: true
    Accessible.name: qsTr("Pairing code")

    onTextChanged: normaliseText()

    Keys.onReturnPressed: submitted()
    Keys.onEnterPressed: submitted()
    Keys.onMenuPressed: openContextMenu()
    Keys.onPressed: event => {
        if (event.key === Qt.Key_F10 && (event.modifiers & Qt.ShiftModifier)) {
            event.accepted = true
            openContextMenu()
            return
        }
        // Typed text goes in normalised, as an ordinary (undoable) edit; control keys, shortcuts
        // and what fits already are left to the field.
        const printable = event.text.length > 0 && event.text.charCodeAt(0) >= 0x20 && event.text !== "\u007f"
        if (!printable || (event.modifiers & (Qt.ControlModifier | Qt.AltModifier | Qt.MetaModifier)))
            return
        const typed = PairingCode.normalise(event.text)
        const room = PairingCode.maximumLength - PairingCode.length(text) + PairingCode.length(selectedText)
        if (typed === event.text && PairingCode.length(typed) <= room)
            return
        event.accepted = true
        if (typed.length === 0 || room <= 0)
            return
        if (selectedText.length > 0)
            remove(selectionStart, selectionEnd)
        insert(cursorPosition, typed)
    }

    TapHandler {
        acceptedButtons: Qt.RightButton
        onTapped: (eventPoint, button) => {
            field.forceActiveFocus(Qt.MouseFocusReason)
            contextMenu.popup(field, eventPoint.position.x, eventPoint.position.y)
        }
    }

    Text {
        objectName: "codePlaceholder"
        anchors.fill: parent
        anchors.leftMargin: field.leftPadding
        anchors.rightMargin: field.rightPadding
        visible: field.length === 0 && field.preeditText.length === 0
        text: field.placeholderText
        font: field.font
        color: Theme.tertiary
        horizontalAlignment: Text.AlignHCenter
        verticalAlignment: Text.AlignVCenter
        Accessible.ignored: true
    }

    Menu {
        id: contextMenu
        objectName: "codeContextMenu"

        MenuItem {
            objectName: "cutItem"
            text: qsTr("Cut")
            enabled: field.selectedText.length > 0
            onTriggered: field.cut()
        }
        MenuItem {
            objectName: "copyItem"
            text: qsTr("Copy")
            enabled: field.selectedText.length > 0
            onTriggered: field.copy()
        }
        MenuItem {
            objectName: "pasteItem"
            text: qsTr("Paste")
            enabled: field.canPaste
            onTriggered: field.paste()
        }
        MenuSeparator {}
        MenuItem {
            objectName: "selectAllItem"
            text: qsTr("Select All")
            enabled: field.length > 0 && field.selectedText.length < field.length
            onTriggered: field.selectAll()
        }
    }

    background: Rectangle {
        radius: Theme.px(12)
        color: Theme.controlBackground
        border.width: field.activeFocus ? 2 : 1
        border.color: field.activeFocus ? Theme.focusRing : Theme.alpha(Theme.brand, 0.4)
    }
}
