#include "KeyboardKeys.h"

#include "KeyAccessible.h"

#include <QAccessible>
#include <QCoreApplication>
#include <QDebug>
#include <QEvent>
#include <QKeyEvent>
#include <QLabel>
#include <QMouseEvent>
#include <QRandomGenerator>
#include <QWidget>

#include <cstdlib>
#include <utility>

namespace {

// Selection without replacement: the element at (draw modulo remaining
// count) goes to index i and leaves the pool, which is empty again after.
void dealOrder(QList<int> &pool, int *order, int n)
{
    for (int i = 0; i < n; ++i)
        pool.append(i);
    for (int i = 0; i < n; ++i) {
        // Drawn from the system source rather than a generator seeded with the
        // time: the key layout must not be predictable from the clock.
        const quint32 r = QRandomGenerator::system()->generate();
        const int k = static_cast<int>(r % static_cast<quint32>(pool.size()));
        order[i] = pool.at(k);
        pool.removeAt(k);
    }
}

bool isPressKey(int qtKey)
{
    return qtKey == Qt::Key_Space || qtKey == Qt::Key_Return || qtKey == Qt::Key_Enter;
}

bool isArrowKey(int qtKey)
{
    return qtKey == Qt::Key_Left || qtKey == Qt::Key_Right || qtKey == Qt::Key_Up
           || qtKey == Qt::Key_Down;
}

// The function keys' names, marked for lupdate in both keyboards' contexts
// (the context is only known at run time).
[[maybe_unused]] const char *const functionKeyNames[] = {
        QT_TRANSLATE_NOOP("SoftKeyboard", "On-screen keyboard"),
        QT_TRANSLATE_NOOP("SoftKeyboard", "Backspace"),
        QT_TRANSLATE_NOOP("SoftKeyboard", "Shift"),
        QT_TRANSLATE_NOOP("SoftKeyboard", "Space"),
        QT_TRANSLATE_NOOP("SimpleSoftKeyboard", "On-screen keyboard"),
        QT_TRANSLATE_NOOP("SimpleSoftKeyboard", "Backspace"),
        QT_TRANSLATE_NOOP("SimpleSoftKeyboard", "Shift"),
};

} // namespace

/**
 * Finds the keys of @p board by their object names: the shuffled groups in
 * drawing order, then label_delete, label_shift and label_space (if any).
 * Every key is made a button for assistive tools, named after its face or,
 * for a function key, after what it does (translated in @p context). The
 * keys themselves take no focus, so a click never moves the focus out of a
 * PIN field: the board is the one Tab stop and hands its focus to the key
 * last used.
 */
KeyboardKeys::KeyboardKeys(QWidget *board, const char *context, const QList<Group> &groups)
    : board(board)
    , groups(groups)
    , backspaceKey(board->findChild<QLabel *>(QStringLiteral("label_delete")))
    , shiftKey(board->findChild<QLabel *>(QStringLiteral("label_shift")))
    , spaceKey(board->findChild<QLabel *>(QStringLiteral("label_space")))
{
    for (Group &group : this->groups)
        for (int i = 0; i < group.normal->size(); ++i)
            group.keys.append(board->findChild<QLabel *>(
                    QLatin1String(group.prefix)
                    + QStringLiteral("%1").arg(i, group.width, 10, QLatin1Char('0'))));
    board->setFocusPolicy(Qt::TabFocus);
    KeyAccessible::mark(board, KeyAccessible::boardProperty);
    board->setAccessibleName(QCoreApplication::translate(context, "On-screen keyboard"));
    backspaceKey->setAccessibleName(QCoreApplication::translate(context, "Backspace"));
    shiftKey->setAccessibleName(QCoreApplication::translate(context, "Shift"));
    if (spaceKey)
        spaceKey->setAccessibleName(QCoreApplication::translate(context, "Space"));
    for (QLabel *key : keys()) {
        KeyAccessible::mark(key, KeyAccessible::keyProperty);
        key->setFocusPolicy(Qt::NoFocus);
    }
    current = keys().value(0);
}

/// All keys: the groups in order, then backspace, shift and space if any.
QList<QLabel *> KeyboardKeys::keys() const
{
    QList<QLabel *> all;
    for (const Group &group : groups)
        all += group.keys;
    all << backspaceKey << shiftKey;
    if (spaceKey)
        all << spaceKey;
    return all;
}

/// Deals new random orders to the groups, in their order, from one pool.
void KeyboardKeys::shuffle()
{
    QList<int> pool;
    for (const Group &group : groups)
        dealOrder(pool, group.order, group.keys.size());
}

/// Writes every group's key faces from its order and the shift state.
void KeyboardKeys::refresh(bool shifted)
{
    for (const Group &group : groups) {
        const QString &map = *(shifted ? group.shifted : group.normal);
        for (int i = 0; i < group.keys.size(); ++i)
            group.keys.at(i)->setText(QString(map.at(group.order[i])));
    }
    // The faces say it only to sighted users: shift reports itself checked.
    if (shiftKey->property(KeyAccessible::shiftedProperty) != shifted) {
        shiftKey->setProperty(KeyAccessible::shiftedProperty, shifted);
        QAccessible::State changed;
        changed.checked = true;
        QAccessibleStateChangeEvent event(shiftKey, changed);
        QAccessible::updateAccessibility(&event);
    }
}

/**
 * Scales the board and every key by @p factor relative to their current
 * geometry; a second call compounds. Fonts are left alone: they follow the
 * logical dpi that @p factor is derived from, so keys and faces grow alike.
 */
void KeyboardKeys::scale(float factor)
{
    board->resize(board->size() * static_cast<double>(factor));
    frameWidth = qMax(2, qRound(frameWidth * factor));
    for (QLabel *key : keys()) {
        key->move(key->pos() * factor);
        key->resize(key->size() * static_cast<double>(factor));
    }
}

/**
 * Tells what pressing @p key does. A character key sends its first face
 * character, so exactly what the user saw on it; space sends code 32.
 */
KeyboardKeys::Action KeyboardKeys::press(QObject *key, char *character) const
{
    if (key == shiftKey)
        return Shift;
    if (spaceKey && key == spaceKey) {
        *character = ' ';
        return Character;
    }
    if (key == backspaceKey)
        return Backspace;
    const QLabel *label = qobject_cast<const QLabel *>(key);
    if (!label || label->text().isEmpty()) {
        const QByteArray line = QByteArray(board->metaObject()->className())
                                + "::on_key_pressed: key without a face, key=";
        qDebug() << line.constData() << key;
        return NoAction;
    }
    *character = label->text().at(0).toLatin1();
    return Character;
}

/**
 * The keyboard's event filter, on the board and its keys. A left-button
 * press on a key is a press and is never consumed; a quick second click
 * arrives as MouseButtonDblClick and is ignored, so a double click types one
 * character. From the physical keyboard, on a focused key: Space or Return
 * press it (auto-repeat ignored), the arrows move to the nearest key that way,
 * Tab and Backtab leave the board. Returns whether the event is consumed and
 * sets @p pressed to the pressed key, if any.
 */
bool KeyboardKeys::filter(QObject *watched, QEvent *event, QObject **pressed)
{
    *pressed = nullptr;
    if (watched == board) {
        if (event->type() == QEvent::FocusIn && current)
            current->setFocus(static_cast<QFocusEvent *>(event)->reason());
        return false;
    }
    auto *key = qobject_cast<QLabel *>(watched);
    if (!key)
        return false;
    switch (event->type()) {
    case QEvent::MouseButtonPress:
        if (static_cast<QMouseEvent *>(event)->button() == Qt::LeftButton)
            *pressed = watched;
        return false;
    case QEvent::FocusIn:
        current = key;
        // Drawn as focus-visible: for focus the user moved (Tab, arrows), and
        // kept across a window switch, but not for a keyboard that merely got
        // the focus by its window's activation. A solid frame in the text
        // colour, as thick as the keys are scaled: the style sheet has no
        // focus rule and a hairline is lost on a key.
        if (static_cast<QFocusEvent *>(event)->reason() != Qt::ActiveWindowFocusReason) {
            key->setFrameStyle(QFrame::Box | QFrame::Plain);
            key->setLineWidth(frameWidth);
        }
        return false;
    case QEvent::FocusOut:
        if (static_cast<QFocusEvent *>(event)->reason() != Qt::ActiveWindowFocusReason)
            key->setFrameStyle(QFrame::NoFrame);
        return false;
    case QEvent::ShortcutOverride: {
        // Claim these before any window shortcut (a dialog's Return) sees them.
        const int qtKey = static_cast<QKeyEvent *>(event)->key();
        if (isPressKey(qtKey) || isArrowKey(qtKey)) {
            event->accept();
            return true;
        }
        return false;
    }
    case QEvent::KeyPress: {
        const auto *keyEvent = static_cast<QKeyEvent *>(event);
        const int qtKey = keyEvent->key();
        if (qtKey == Qt::Key_Tab || qtKey == Qt::Key_Backtab) {
            leave(qtKey == Qt::Key_Tab && !(keyEvent->modifiers() & Qt::ShiftModifier));
            return true;
        }
        if (isPressKey(qtKey)) {
            if (!keyEvent->isAutoRepeat())
                *pressed = watched;
            return true;
        }
        if (isArrowKey(qtKey)) {
            if (QLabel *next = neighbour(key, qtKey))
                next->setFocus(Qt::OtherFocusReason);
            return true;
        }
        return false;
    }
    default:
        return false;
    }
}

/**
 * The visible key nearest to @p from in the direction of the arrow
 * @p qtKey: along the row for left and right, the closest row and then the
 * closest column for up and down. Null at the edge.
 */
QLabel *KeyboardKeys::neighbour(const QLabel *from, int qtKey) const
{
    const QPoint origin = from->geometry().center();
    const int half = from->height() / 2;
    QLabel *best = nullptr;
    std::pair<int, int> bestDistance;
    for (QLabel *key : keys()) {
        if (key == from || !key->isVisibleTo(board))
            continue;
        const QPoint d = key->geometry().center() - origin;
        int along = 0;
        int across = 0;
        switch (qtKey) {
        case Qt::Key_Left:
        case Qt::Key_Right:
            along = qtKey == Qt::Key_Right ? d.x() : -d.x();
            across = std::abs(d.y());
            if (across > half)
                continue;
            break;
        default:
            along = qtKey == Qt::Key_Down ? d.y() : -d.y();
            across = std::abs(d.x());
            if (along <= half)
                continue;
            break;
        }
        if (along <= 0)
            continue;
        const std::pair<int, int> distance(along, across);
        if (!best || distance < bestDistance) {
            best = key;
            bestDistance = distance;
        }
    }
    return best;
}

/**
 * Moves the focus from a key to the next (or previous) Tab stop outside the
 * board, counted from where the board itself stands in the focus chain, so a
 * Tab never walks through the keys one by one.
 */
void KeyboardKeys::leave(bool forward)
{
    QWidget *window = board->window();
    for (QWidget *w = board;;) {
        w = forward ? w->nextInFocusChain() : w->previousInFocusChain();
        if (!w || w == board)
            return;
        if (w->focusProxy() || !(w->focusPolicy() & Qt::TabFocus) || !w->isEnabled()
            || !w->isVisibleTo(window) || w->window() != window)
            continue;
        w->setFocus(forward ? Qt::TabFocusReason : Qt::BacktabFocusReason);
        return;
    }
}
