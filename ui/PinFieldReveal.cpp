#include "PinFieldReveal.h"

#include <QDebug>
#include <QEvent>
#include <QGlyphRun>
#include <QLineEdit>
#include <QPainter>
#include <QRawFont>
#include <QStyle>
#include <QStyleOptionFrame>
#include <QToolButton>
#include <QVarLengthArray>

#include <cstring>

PinFieldReveal::PinFieldReveal(QLineEdit *edit)
    : QWidget(edit)
    , edit(edit)
{
    setObjectName(edit->objectName() + QStringLiteral("_reveal"));
    setAttribute(Qt::WA_TransparentForMouseEvents);
    setFocusPolicy(Qt::NoFocus);
    hide();
    edit->installEventFilter(this);
    connect(edit, &QLineEdit::textChanged, this, qOverload<>(&QWidget::update));
    connect(edit, &QLineEdit::cursorPositionChanged, this, qOverload<>(&QWidget::update));
    // A selection in clear would land in the X selection; none is made while shown.
    connect(edit, &QLineEdit::selectionChanged, this, [this]() {
        if (shown && this->edit->hasSelectedText())
            this->edit->deselect();
    });
}

void PinFieldReveal::setShown(bool show)
{
    if (show == shown)
        return;
    shown = show;
    qDebug() << "PIN field shown in clear:" << show;
    if (show) {
        editPalette = edit->palette();
        textColour = editPalette.color(QPalette::Text);
        QPalette invisible = editPalette;
        invisible.setColor(QPalette::Text, Qt::transparent);
        edit->setPalette(invisible);
        edit->deselect();
        setGeometry(edit->rect());
        raise();
    } else {
        edit->setPalette(editPalette);
    }
    setVisible(show);
}

bool PinFieldReveal::eventFilter(QObject *obj, QEvent *event)
{
    if (obj == edit && event->type() == QEvent::Resize)
        setGeometry(edit->rect());
    else if (obj == edit && (event->type() == QEvent::FocusIn || event->type() == QEvent::FocusOut))
        update();
    return QWidget::eventFilter(obj, event);
}

// Where the field lays out its text: its contents, less margins and icons.
QRect PinFieldReveal::textRect() const
{
    QStyleOptionFrame opt;
    opt.initFrom(edit);
    opt.rect = edit->contentsRect();
    opt.lineWidth = edit->hasFrame()
                            ? edit->style()->pixelMetric(QStyle::PM_DefaultFrameWidth, &opt, edit)
                            : 0;
    QRect r = edit->style()
                      ->subElementRect(QStyle::SE_LineEditContents, &opt, edit)
                      .marginsRemoved(edit->textMargins());
    for (const QToolButton *icon : edit->findChildren<QToolButton *>()) {
        if (icon->isVisibleTo(edit) && icon->x() > r.center().x())
            r.setRight(qMin(r.right(), icon->x() - 1));
    }
    return r.adjusted(2, 0, -2, 0); // the field's own margin beside the text
}

void PinFieldReveal::paintEvent(QPaintEvent *)
{
    // Shares the field's string; only read through constData(), never detached.
    const QString text = edit->text();
    const QRawFont font = QRawFont::fromFont(edit->font());
    const int chars = text.size();
    QVarLengthArray<quint32, 64> glyphs(qMax(chars, 1));
    int count = glyphs.size();
    int beforeCursor = glyphs.size();
    if (!font.glyphIndexesForChars(text.constData(), chars, glyphs.data(), &count))
        count = 0;
    QVarLengthArray<quint32, 64> scratch(glyphs.size());
    if (!font.glyphIndexesForChars(text.constData(), edit->cursorPosition(), scratch.data(),
                                   &beforeCursor))
        beforeCursor = 0;
    // Glyph numbers spell the PIN as surely as its characters do.
    explicit_bzero(scratch.data(), size_t(scratch.size()) * sizeof(quint32));

    QVarLengthArray<QPointF, 64> positions(count + 1);
    font.advancesForGlyphIndexes(glyphs.data(), positions.data(), count);
    qreal x = 0;
    for (int i = 0; i <= count; ++i) {
        const qreal advance = i < count ? positions[i].x() : 0;
        positions[i] = QPointF(x, 0);
        x += advance;
    }
    const QRect r = textRect();
    const QFontMetrics fm(edit->font());
    const qreal cursorX = positions[qBound(0, beforeCursor, count)].x();
    const qreal scroll = qMax<qreal>(0, cursorX - r.width() + 1);
    const int top = r.y() + (r.height() - fm.height() + 1) / 2;

    QPainter painter(this);
    // The field still draws its own cursor where its bullets end: cover it.
    const QRect bulletCursor = edit->inputMethodQuery(Qt::ImCursorRectangle).toRect();
    painter.fillRect(bulletCursor.adjusted(-1, 0, 1, 0) & r, edit->palette().color(QPalette::Base));
    painter.setClipRect(r);
    painter.setPen(textColour);
    if (count > 0) {
        QGlyphRun run;
        run.setRawFont(font);
        run.setRawData(glyphs.constData(), positions.constData(), count);
        painter.drawGlyphRun(QPointF(r.x() - scroll, top + fm.ascent()), run);
    }
    if (edit->hasFocus()) {
        const int width = edit->style()->pixelMetric(QStyle::PM_TextCursorWidth, nullptr, edit);
        painter.fillRect(QRectF(r.x() - scroll + cursorX, top, qMax(width, 1), fm.height()),
                         textColour);
    }
    explicit_bzero(glyphs.data(), size_t(glyphs.size()) * sizeof(quint32));
}
