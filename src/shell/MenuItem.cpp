#include "MenuItem.h"

MenuItem MenuItem::makeSeparator() {
    MenuItem item;
    item.separator = true;
    item.enabled = false;
    return item;
}

MenuItem MenuItem::make(const QString& title, MenuAction action, bool enabled) {
    MenuItem item;
    item.title = title;
    item.action = action;
    item.enabled = enabled;
    return item;
}

QKeySequence MenuItem::shortcut() const {
    return shortcutFor(key);
}

QKeySequence MenuItem::shortcutFor(const QString& key) {
    if (key.size() != 1) {
        return QKeySequence();
    }
    const QChar character = key.front();
    Qt::KeyboardModifiers modifiers = Qt::ControlModifier;
    if (character.isUpper()) {
        modifiers |= Qt::ShiftModifier;
    }
    // Qt's key codes for letters and digits are their upper-case Latin-1 codes.
    const auto code = static_cast<Qt::Key>(character.toUpper().unicode());
    return QKeySequence(QKeyCombination(modifiers, code));
}

QStringList MenuItem::describe(const QList<MenuItem>& items, const QString& indent) {
    QStringList lines;
    for (const MenuItem& item : items) {
        if (item.separator) {
            lines.append(indent + QStringLiteral("---"));
            continue;
        }
        QString line = indent + item.title;
        if (item.checkable) {
            line += item.checked ? QStringLiteral(" [x]") : QStringLiteral(" [ ]");
        }
        if (!item.enabled) {
            line += QStringLiteral(" (disabled)");
        }
        if (item.action != MenuAction::None) {
            line += QStringLiteral(" -> ") + menuActionName(item.action);
        }
        if (!item.key.isEmpty()) {
            line += QStringLiteral(" <") + item.key + u'>';
        }
        if (!item.representedObject.isNull()) {
            line += QStringLiteral(" {") + item.representedObject.toString() + u'}';
        }
        lines.append(line);
        lines.append(describe(item.submenu, indent + QStringLiteral("    ")));
    }
    return lines;
}

bool operator==(const MenuItem& a, const MenuItem& b) {
    return a.separator == b.separator && a.title == b.title && a.action == b.action &&
           a.key == b.key && a.enabled == b.enabled && a.checkable == b.checkable &&
           a.checked == b.checked && a.representedObject == b.representedObject &&
           a.submenu == b.submenu;
}
