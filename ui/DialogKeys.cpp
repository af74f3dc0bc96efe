#include "DialogKeys.h"

#include <QAbstractButton>
#include <QKeyEvent>
#include <QLineEdit>
#include <QMetaObject>
#include <QList>
#include <QPointer>
#include <QTimer>
#include <QWidget>

namespace DialogKeys {

bool handleKey(QWidget *window, QKeyEvent *event, QAbstractButton *defaultButton)
{
    if (event->modifiers() != Qt::NoModifier && event->modifiers() != Qt::KeypadModifier)
        return false;
    if (event->key() == Qt::Key_Escape) {
        window->close();
        return true;
    }
    if (event->key() != Qt::Key_Return && event->key() != Qt::Key_Enter)
        return false;
    // A PIN field answers Return itself.
    if (qobject_cast<QLineEdit *>(window->focusWidget()))
        return false;
    auto *focused = qobject_cast<QAbstractButton *>(window->focusWidget());
    QAbstractButton *target = focused && focused->isVisible() ? focused : defaultButton;
    // Queued: the click may destroy the window, which must not happen inside
    // its own key handling; a queued click on a destroyed button is dropped.
    if (target && target->isVisible() && target->isEnabled())
        QMetaObject::invokeMethod(target, "click", Qt::QueuedConnection);
    return true;
}

void showFocusRing(QWidget *window)
{
    // Activation hands the focus over with a reason that clears the
    // attribute, so it is set once that is done.
    QPointer<QWidget> guard(window);
    QTimer::singleShot(0, window, [guard] {
        if (!guard || !guard->isActiveWindow())
            return;
        guard->setAttribute(Qt::WA_KeyboardFocusChange, true);
        if (QWidget *focused = guard->focusWidget())
            focused->update();
    });
}

void addAccelerators(const QList<QAbstractButton *> &buttons)
{
    for (QAbstractButton *button : buttons) {
        const QString text = button->text();
        if (text.isEmpty() || text.contains(QLatin1Char('&')))
            continue;
        const QChar first = text.at(0);
        if (first.isLetter() && first.unicode() < 0x80) {
            button->setText(QLatin1Char('&') + text);
            continue;
        }
        // The object name tells the role: pushButton_OK, pushButton_Cancel, ...
        const QString role = button->objectName().section(QLatin1Char('_'), -1);
        if (!role.isEmpty())
            button->setText(text + QStringLiteral("(&%1)").arg(role.at(0).toUpper()));
    }
}

} // namespace DialogKeys
