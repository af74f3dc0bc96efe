#include "DialogFrame.h"

#include <QApplication>
#include <QCloseEvent>
#include <QDebug>
#include <QDesktopWidget>
#include <QKeyEvent>
#include <QLineEdit>
#include <QMetaObject>
#include <QPointer>
#include <QPushButton>
#include <QScreen>
#include <QTimer>

namespace {

/**
 * Deliberate departure: sizes never double-scale. The display scale is the
 * logical DPI / 96, but fonts (and so every size a layout derives from them)
 * already follow the DPI; multiplying a fitted size by the full scale scaled
 * it twice and pushed dialogs off the screen at 192 dpi.
 */
float remainingScale(const QWidget *widget, float scale)
{
    const float fontScale = float(widget->logicalDpiX()) / 96.0f;
    return fontScale > 0.0f ? qMax(1.0f, scale / fontScale) : scale;
}

QSize boundedToScreen(const QWidget *widget, const QSize &size)
{
    const QScreen *screen = widget->screen() ? widget->screen() : QGuiApplication::primaryScreen();
    const QRect area = screen ? screen->availableGeometry() : QRect();
    return area.isEmpty() ? size : size.boundedTo(area.size());
}

// "&OK", or "确定(&O)" where the (translated) text does not start with a Latin
// letter; the object name tells the role: pushButton_OK, pushButton_Cancel, ...
void addAccelerator(QAbstractButton *button)
{
    const QString text = button->text();
    if (text.isEmpty() || text.contains(QLatin1Char('&')))
        return;
    const QChar first = text.at(0);
    if (first.isLetter() && first.unicode() < 0x80) {
        button->setText(QLatin1Char('&') + text);
        return;
    }
    const QString role = button->objectName().section(QLatin1Char('_'), -1);
    if (!role.isEmpty())
        button->setText(text + QStringLiteral("(&%1)").arg(role.at(0).toUpper()));
}

} // namespace

DialogFrame::DialogFrame(QWidget *window)
    : window(window)
{ }

void DialogFrame::setButtons(QAbstractButton *defaultButton, QAbstractButton *closeButton)
{
    this->defaultButton = defaultButton;
    this->closeButton = closeButton;
    for (QPushButton *button : window->findChildren<QPushButton *>())
        addAccelerator(button);
}

void DialogFrame::fit(float scale)
{
    // adjustSize() cannot shrink a window below its minimum, so a size that
    // was fixed before (a countdown refits on every tick) is dropped first.
    window->setMinimumSize(0, 0);
    window->setMaximumSize(QWIDGETSIZE_MAX, QWIDGETSIZE_MAX);
    window->adjustSize();
    const QSize scaled = boundedToScreen(window, window->size() * remainingScale(window, scale));
    window->resize(scaled);
    window->setMinimumSize(scaled);
    window->setMaximumSize(scaled);
    centre();
}

void DialogFrame::centre()
{
    const QDesktopWidget *desktop = QApplication::desktop();
    window->move((desktop->width() - window->width()) / 2,
                 (desktop->height() - window->height()) / 2);
}

bool DialogFrame::event(QEvent *event)
{
    switch (event->type()) {
    case QEvent::Close:
        if (!closeButton)
            return false;
        closeAsAnswer(static_cast<QCloseEvent *>(event));
        return true;
    case QEvent::KeyPress:
        return handleKey(static_cast<QKeyEvent *>(event));
    case QEvent::ActivationChange:
        if (window->isActiveWindow())
            showFocusRing();
        return false;
    default:
        return false;
    }
}

/**
 * Deliberate departure: Escape answers as the window manager's close does;
 * Return presses the focused button, or the default one.
 */
bool DialogFrame::handleKey(QKeyEvent *event)
{
    if (event->modifiers() != Qt::NoModifier && event->modifiers() != Qt::KeypadModifier)
        return false;
    if (event->key() == Qt::Key_Escape && closeButton) {
        window->close();
        return true;
    }
    if ((event->key() != Qt::Key_Return && event->key() != Qt::Key_Enter) || !defaultButton)
        return false;
    // A PIN field answers Return itself.
    if (qobject_cast<QLineEdit *>(window->focusWidget()))
        return false;
    auto *focused = qobject_cast<QAbstractButton *>(window->focusWidget());
    QAbstractButton *target = focused && focused->isVisible() ? focused : defaultButton;
    // Queued: the click may destroy the window, which must not happen inside
    // its own key handling; a queued click on a destroyed button is dropped.
    if (target->isVisible() && target->isEnabled())
        QMetaObject::invokeMethod(target, "click", Qt::QueuedConnection);
    return true;
}

/**
 * Deliberate departure: a window-manager close (or Escape) answers as the
 * close button would, exactly once, so the socket thread never waits for a
 * window that is gone; no close ever ends the process. The coordinator's own
 * hide and delete send no close event. The answer is given from the event
 * loop: the coordinator deletes the window inside its status setter, which
 * must not happen inside this event; a queued call to a deleted window is
 * dropped.
 */
void DialogFrame::closeAsAnswer(QCloseEvent *event)
{
    event->accept();
    if (hasAnswer || closeQueued)
        return;
    closeQueued = true;
    qDebug().noquote() << QStringLiteral("%1: closed by the window manager, answered as %2")
                                  .arg(QLatin1String(window->metaObject()->className()),
                                       closeButton->objectName().section(QLatin1Char('_'), -1));
    QMetaObject::invokeMethod(
            window,
            [this] {
                if (!hasAnswer)
                    closeButton->click();
            },
            Qt::QueuedConnection);
}

/**
 * Draws the focus ring from the start: styles draw it only once the keyboard
 * has moved the focus, and a dialog answered by keyboard alone needs it at
 * once. Activation hands the focus over with a reason that clears the
 * attribute, so it is set once that is done.
 */
void DialogFrame::showFocusRing()
{
    QPointer<QWidget> guard(window);
    QTimer::singleShot(0, window, [guard] {
        if (!guard || !guard->isActiveWindow())
            return;
        guard->setAttribute(Qt::WA_KeyboardFocusChange, true);
        if (QWidget *focused = guard->focusWidget())
            focused->update();
    });
}
