#pragma once

#include <QList>

class QAbstractButton;
class QKeyEvent;
class QWidget;

/**
 * Keyboard conventions the dialogs share (deliberate departure: they are
 * plain widgets, not QDialog, so nothing gives them these by itself).
 */
namespace DialogKeys {

// Escape closes the window (answered as its close is); Return and Enter press
// the focused button, or the default one when no button has the focus.
// True when the key was taken.
bool handleKey(QWidget *window, QKeyEvent *event, QAbstractButton *defaultButton);

// Draws the focus ring from the start: styles draw it only once the keyboard
// has moved the focus, and a dialog answered by keyboard alone needs it at once.
void showFocusRing(QWidget *window);

// Gives each button an accelerator on its (translated) text: "&OK", or
// "确定(&O)" where the text does not start with a Latin letter.
void addAccelerators(const QList<QAbstractButton *> &buttons);

} // namespace DialogKeys
