#pragma once

#include <QColor>
#include <QPalette>
#include <QWidget>

class QLineEdit;

/**
 * Shows the PIN of a password field in clear while leaving no copy of it
 * behind. The field stays in password echo, so Qt only ever lays out
 * bullets; while shown, bullets and cursor are made transparent and this
 * overlay draws the field's own string glyph by glyph, with no text layout
 * (and so no detached copy) of its own, and the cursor at its place.
 */
class PinFieldReveal : public QWidget
{
    Q_OBJECT
public:
    explicit PinFieldReveal(QLineEdit *edit);

    bool isShown() const { return shown; }

public slots:
    void setShown(bool show);

protected:
    bool eventFilter(QObject *obj, QEvent *event) override;
    void paintEvent(QPaintEvent *event) override;

private:
    QRect textRect() const;

    QLineEdit *edit;
    QPalette editPalette;
    QColor textColour;
    bool shown = false;
};
