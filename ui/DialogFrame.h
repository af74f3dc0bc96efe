#pragma once

class QAbstractButton;
class QCloseEvent;
class QEvent;
class QKeyEvent;
class QWidget;

/**
 * What the dialogs share as plain top-level widgets (deliberate departure:
 * they are not QDialog, so nothing gives them these by itself): their size
 * and place on the screen, their keys, and the answer a close gives.
 *
 * A dialog keeps one as a member, forwards its events to it with
 *   bool event(QEvent *e) override { return frame.event(e) || QWidget::event(e); }
 * and calls answered() once it reports a button's answer.
 */
class DialogFrame
{
public:
    explicit DialogFrame(QWidget *window);

    /**
     * Return and Enter press the focused button, or `defaultButton`; Escape
     * and the window manager's close press `closeButton` (Cancel, or OK where
     * OK is the only button), once and only while nothing has been answered.
     * The push buttons get accelerators.
     */
    void setButtons(QAbstractButton *defaultButton, QAbstractButton *closeButton);

    // Fits the window to its contents, grown by the part of `scale` the fonts
    // did not already apply and bounded by the screen, fixes that size and
    // centres the window.
    void fit(float scale);
    // Centres the window on the desktop.
    void centre();

    // An answer was reported: a later close stays silent.
    void answered() { hasAnswer = true; }

    // True when the event was taken.
    bool event(QEvent *event);

private:
    bool handleKey(QKeyEvent *event);
    void closeAsAnswer(QCloseEvent *event);
    void showFocusRing();

    QWidget *window;
    QAbstractButton *defaultButton = nullptr;
    QAbstractButton *closeButton = nullptr;
    bool hasAnswer = false;
    bool closeQueued = false;
};
