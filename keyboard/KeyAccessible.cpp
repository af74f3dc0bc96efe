#include "KeyAccessible.h"

#include <QCoreApplication>
#include <QKeyEvent>
#include <QLabel>

const char *const KeyAccessible::keyProperty = "zruiKeyboardKey";
const char *const KeyAccessible::boardProperty = "zruiKeyboard";
const char *const KeyAccessible::shiftedProperty = "zruiShifted";

namespace {

QAccessibleInterface *keyFactory(const QString &className, QObject *object)
{
    if (className == QLatin1String("QLabel") && object
        && object->property(KeyAccessible::keyProperty).toBool())
        return new KeyAccessible(static_cast<QLabel *>(object));
    // The board groups the keys under its name, rather than being a filler.
    if (object && object->isWidgetType() && object->property(KeyAccessible::boardProperty).toBool())
        return new QAccessibleWidget(static_cast<QWidget *>(object), QAccessible::Grouping);
    return nullptr;
}

} // namespace

KeyAccessible::KeyAccessible(QLabel *key)
    : QAccessibleWidget(key, QAccessible::Button)
{ }

/**
 * Marks @p widget with @p property for the factory that gives keys and
 * boards their interfaces (installed once per process). An interface made
 * earlier (setting the faces in the form already announces them) is dropped
 * so the next query builds the right one.
 */
void KeyAccessible::mark(QWidget *widget, const char *property)
{
    static bool installed = false;
    if (!installed)
        QAccessible::installFactory(keyFactory);
    installed = true;
    QAccessibleInterface *earlier = QAccessible::queryAccessibleInterface(widget);
    widget->setProperty(property, true);
    if (earlier)
        QAccessible::deleteAccessibleInterface(QAccessible::uniqueId(earlier));
}

/// The name is the accessible name if one was set, else the key's face.
QString KeyAccessible::text(QAccessible::Text t) const
{
    if (t != QAccessible::Name)
        return QAccessibleWidget::text(t);
    const QString name = widget()->accessibleName();
    return name.isEmpty() ? static_cast<const QLabel *>(widget())->text() : name;
}

QAccessible::State KeyAccessible::state() const
{
    QAccessible::State s = QAccessibleWidget::state();
    s.focusable = true;
    const QVariant shifted = widget()->property(shiftedProperty);
    s.checkable = shifted.isValid();
    s.checked = shifted.toBool();
    return s;
}

QStringList KeyAccessible::actionNames() const
{
    return QStringList(pressAction()) + QAccessibleWidget::actionNames();
}

/// Pressing goes through the keyboard's own Space handling, like a real key.
void KeyAccessible::doAction(const QString &actionName)
{
    if (actionName != pressAction()) {
        QAccessibleWidget::doAction(actionName);
        return;
    }
    QKeyEvent press(QEvent::KeyPress, Qt::Key_Space, Qt::NoModifier, QStringLiteral(" "));
    QCoreApplication::sendEvent(widget(), &press);
}
