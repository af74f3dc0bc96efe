#pragma once

#include <QAccessibleWidget>

class QLabel;

/**
 * What assistive tools see of one on-screen key: a button named after its
 * face (or its function), focusable, pressed by the press action. Only the
 * face is exposed, never anything that was typed.
 */
class KeyAccessible : public QAccessibleWidget
{
public:
    /// The properties that mark a label as an on-screen key and a keyboard.
    static const char *const keyProperty;
    static const char *const boardProperty;
    /// Set on the shift key only: whether shift is on.
    static const char *const shiftedProperty;

    explicit KeyAccessible(QLabel *key);

    static void mark(QWidget *widget, const char *property);

    QString text(QAccessible::Text t) const override;
    QAccessible::State state() const override;
    QStringList actionNames() const override;
    void doAction(const QString &actionName) override;
};
