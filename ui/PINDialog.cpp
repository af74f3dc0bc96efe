#include "PINDialog.h"
#include "ui_PINDialog.h"

#include "keyboard/SimpleSoftKeyboard.h"
#include "keyboard/SoftKeyboard.h"
#include "CapsLockState.h"
#include "WindowActivation.h"
#include "DialogAccessibility.h"
#include "PinFieldReveal.h"
#include "service/UiStatusHandler.h"

#include <QAction>
#include <QApplication>
#include <QDebug>
#include <QHash>
#include <QHideEvent>
#include <QPainter>
#include <QPainterPath>
#include <QKeyEvent>
#include <QKeySequence>
#include <QLineEdit>
#include <QMouseEvent>
#include <QRegExp>
#include <QRegularExpression>
#include <QRegularExpressionValidator>
#include <QScreen>
#include <QTimer>
#include <QToolTip>

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <sys/mman.h>

namespace {

// Remembered vertical position of PIN dialogs; outlives every dialog so that a
// later dialog opens where the user last saw one.
int keepWindowY = 0;

// The two keyboard rows a walk may follow. Kept exactly as they stand: they
// define which walks are forbidden, including the jumps across the joins
// ("=\q", "[]a", "'z").
const QString unshiftedRow = QStringLiteral("1234567890-=\\") + QStringLiteral("qwertyuiop[]")
                             + QStringLiteral("asdfghjkl;'") + QStringLiteral("zxcvbnm,./");
const QString shiftedRow = QStringLiteral("!@#$%^&*()_+|") + QStringLiteral("QWERTYUIOP{}")
                           + QStringLiteral("ASDFGHJKL:") + QStringLiteral("\"")
                           + QStringLiteral("ZXCVBNM<>?");

void setRetainSizeWhenHidden(QWidget *w, bool retain)
{
    QSizePolicy policy = w->sizePolicy();
    policy.setRetainSizeWhenHidden(retain);
    w->setSizePolicy(policy);
}

void scaleWidget(QWidget *w, float scale) { w->resize(w->size() * scale); }

// True when `next` is not the successor of `c` in `row` while `c` is in it.
// QString::arg, minus its warning when the text has no placeholder left (an
// annotation key without a translation): the resulting text is the same.
QString argIfPlaceholder(const QString &text, long long value)
{
    static const QRegularExpression placeholder(QStringLiteral("%L?\\d"));
    return text.contains(placeholder) ? text.arg(value) : text;
}

QString withBounds(const QString &text, long long minLen, long long maxLen)
{
    return argIfPlaceholder(argIfPlaceholder(text, minLen), maxLen);
}

/**
 * Zeroes the characters of `s` in its storage, also while that storage is
 * shared (with a line edit, say), then lets go of it. Copying would not do:
 * a write through a shared QString detaches and leaves the old bytes behind.
 */
void wipeShared(QString &s)
{
    // Text that came in as a literal or raw data is not ours to overwrite
    // (and may be read-only); typed text always lives on the heap.
    const QString::DataPtr d = s.data_ptr();
    if (!s.isEmpty() && !d->ref.isStatic() && d->alloc != 0) {
        const int chars = qMax(s.size(), s.capacity());
        explicit_bzero(const_cast<QChar *>(s.constData()), size_t(chars) * sizeof(QChar));
    }
    s = QString();
}

// Wipes `s` unless it is the very text the edit now holds.
void wipeUnlessHeld(QString &s, const QLineEdit *edit)
{
    if (s.constData() == edit->text().constData())
        s = QString();
    else
        wipeShared(s);
}

// WCAG relative luminance and contrast ratio.
double luminance(const QColor &c)
{
    auto channel = [](double v) {
        return v <= 0.03928 ? v / 12.92 : std::pow((v + 0.055) / 1.055, 2.4);
    };
    return 0.2126 * channel(c.redF()) + 0.7152 * channel(c.greenF()) + 0.0722 * channel(c.blueF());
}

double contrast(const QColor &a, const QColor &b)
{
    const double la = luminance(a);
    const double lb = luminance(b);
    return (qMax(la, lb) + 0.05) / (qMin(la, lb) + 0.05);
}

/**
 * A red that reads on `background` at a contrast of at least 4.5:1 (WCAG
 * AA): darkened on a light window, lightened on a dark one.
 */
QColor readableRed(const QColor &background)
{
    const bool dark = luminance(background) < 0.18;
    QColor red = QColor::fromHsl(0, 255, 128);
    for (int step = 0; step < 40 && contrast(red, background) < 4.5; ++step)
        red = QColor::fromHsl(0, 255, qBound(0, red.lightness() + (dark ? 5 : -5), 255));
    return red;
}

QIcon drawEyeIcon(const QColor &colour, bool struck)
{
    QPixmap pixmap(32, 32);
    pixmap.fill(Qt::transparent);
    QPainter painter(&pixmap);
    painter.setRenderHint(QPainter::Antialiasing);
    painter.setPen(QPen(colour, 2.5));
    QPainterPath outline;
    outline.moveTo(3, 16);
    outline.quadTo(16, 3, 29, 16);
    outline.quadTo(16, 29, 3, 16);
    painter.drawPath(outline);
    painter.setBrush(colour);
    painter.drawEllipse(QPointF(16, 16), 4.5, 4.5);
    if (struck)
        painter.drawLine(6, 27, 26, 5);
    return QIcon(pixmap);
}

// An eye, struck through while the PIN is hidden; drawn in the text colour so
// it reads on light and dark palettes alike. Drawn once per colour: every
// dialog shows three, and each new icon left its scaled copies in
// QPixmapCache.
QIcon eyeIcon(const QColor &colour, bool struck)
{
    static QHash<QPair<QRgb, bool>, QIcon> drawn;
    QIcon &icon = drawn[qMakePair(colour.rgba(), struck)];
    if (icon.isNull())
        icon = drawEyeIcon(colour, struck);
    return icon;
}

bool endsWalk(const QString &row, QChar c, QChar next)
{
    const int pos = row.indexOf(c);
    if (pos < 0)
        return false;
    return pos + 1 >= row.size() || row.at(pos + 1) != next;
}

} // namespace

PINDialog::PINDialog(PINDialog::KeyBoardMode keyBoardMode, bool keyboardVisible, unsigned long type,
                     UiStatusHandler *service, float scale, QWidget *parent)
    : QWidget(parent)
    , ui(new Ui::PINDialog)
    , keyBoardMode(keyBoardMode)
    , keyboardVisible(keyboardVisible)
    , scale(scale)
{
    ui->setupUi(this);
    DialogAccessibility::install();
    qDebug() << "Create PINDialog: keyboardmode=" << keyBoardMode
             << ", keyboardvisible=" << keyboardVisible << ", type=" << type;

    // Kept on purpose: the panel always starts hidden whatever the caller asks;
    // only the toggle buttons show it.
    this->keyboardVisible = false;

    if (keyBoardMode == SimpleKeyBoard)
        keyboard = new SimpleSoftKeyboard(scale, ui->widget_softkeyboard);
    else if (keyBoardMode == FullKeyBoard)
        keyboard = new SoftKeyboard(scale, ui->widget_softkeyboard);
    if (keyboard) {
        connect(keyboard, SIGNAL(input_char(char)), this, SLOT(receiveInput(char)));
        connect(keyboard, SIGNAL(input_backspace()), this, SLOT(receiveBackspace()));
    }

    this->service = service;
    ui->label_fixcomment->setText(annotationText(QT_TR_NOOP("IDC_CUSTOM_PIN_ANNOTATION")));

    QString title;
    switch (type) {
    case 0:
        mode = 0;
        title = tr("Verify USBKey password");
        ui->label_fixcomment->setText(annotationText(QT_TR_NOOP("comment_passwdinfo_verify")));
        break;
    case 1:
        mode = 1;
        title = tr("Verify USBKey so password");
        break;
    case 2:
        mode = 2;
        title = tr("Change USBKey password");
        break;
    case 3:
        mode = 3;
        title = tr("Change USBKey so password");
        break;
    case 4:
        mode = 4;
        title = tr("Unblock USBKey password");
        break;
    case 5:
        // Kept on purpose: the set dialog is mode 6; mode 5 is never produced.
        mode = 6;
        title = tr("Set USBKey password");
        setAttribute(Qt::WA_ShowModal);
        break;
    default:
        // Unknown type: no title, and a mode that no check accepts.
        break;
    }
    setWindowTitle(title);

    // One retaining policy for all three buttons: rows that end alike measure
    // alike, so the edits stay lined up however wide the window grows.
    QSizePolicy retaining = ui->toolButtonold_softkeyboard->sizePolicy();
    retaining.setRetainSizeWhenHidden(true);
    ui->toolButtonold_softkeyboard->setSizePolicy(retaining);
    ui->toolButtonnew_softkeyboard->setSizePolicy(retaining);
    ui->toolButton_hide2->setSizePolicy(retaining);
    ui->toolButton_hide2->hide();
    for (QWidget *w :
         {static_cast<QWidget *>(ui->label_fixcomment), static_cast<QWidget *>(ui->label_comments),
          static_cast<QWidget *>(ui->label_oldPin), static_cast<QWidget *>(ui->lineEdit_oldPin),
          static_cast<QWidget *>(ui->label_newPin), static_cast<QWidget *>(ui->lineEdit_newPin),
          static_cast<QWidget *>(ui->label_confirmPin),
          static_cast<QWidget *>(ui->lineEdit_confirmPin), ui->widget_softkeyboard,
          static_cast<QWidget *>(ui->toolButtonnew_softkeyboard),
          static_cast<QWidget *>(ui->toolButtonold_softkeyboard)})
        scaleWidget(w, scale);
    ui->toolButton_hide2->resize(ui->toolButtonold_softkeyboard->size());
    // The form's fixed 410 x 140 panel cannot hold a keyboard scaled above 1:
    // the panel takes the keyboard's scaled size so no key is cut off.
    if (keyboard)
        ui->widget_softkeyboard->setFixedSize(keyboard->size());

    switch (mode) {
    case 0:
    case 1:
    case 4:
    case 5:
        ui->label_oldPin->setText(mode == 0 ? tr("Input User Pin:") : tr("Input Admin Pin:"));
        ui->label_newPin->hide();
        ui->lineEdit_newPin->hide();
        ui->toolButtonnew_softkeyboard->hide();
        ui->label_confirmPin->hide();
        ui->lineEdit_confirmPin->hide();
        setRetainSizeWhenHidden(ui->toolButtonnew_softkeyboard, false);
        setRetainSizeWhenHidden(ui->toolButton_hide2, false);
        break;
    case 2:
    case 3:
        ui->label_oldPin->setText(tr("Old PIN:"));
        ui->label_newPin->setText(tr("New PIN:"));
        ui->label_confirmPin->setText(tr("Confirm PIN:"));
        // Retains its gap, so the old row lines up with the rows below.
        ui->toolButtonold_softkeyboard->hide();
        ui->label_fixcomment->setText(annotationText(QT_TR_NOOP("IDC_CUSTOM_PIN_ANNOTATION")));
        break;
    case 6:
        ui->label_oldPin->hide();
        ui->lineEdit_oldPin->hide();
        setRetainSizeWhenHidden(ui->toolButtonold_softkeyboard, false);
        ui->toolButtonold_softkeyboard->hide();
        ui->label_newPin->setText(tr("USBKey Passwd:"));
        ui->label_confirmPin->setText(tr("Passwd Confirm:"));
        ui->label_fixcomment->setText(annotationText(QT_TR_NOOP("IDC_CUSTOM_PIN_ANNOTATION")));
        break;
    default:
        break;
    }

    // Deliberate departure: the fields first, in the order they are filled in,
    // then the keyboard buttons, OK and Cancel; a confirmation typed after one
    // Tab lands in the confirmation field.
    // An opened keyboard is the stop right after its button (only one of the
    // two buttons is ever shown); a hidden panel is skipped.
    QList<QWidget *> tabOrder{ui->lineEdit_oldPin, ui->lineEdit_newPin, ui->lineEdit_confirmPin,
                              ui->toolButtonold_softkeyboard, ui->toolButtonnew_softkeyboard};
    if (keyboard)
        tabOrder << keyboard;
    tabOrder << ui->pushButton_OK << ui->pushButton_Cancel;
    for (int i = 0; i + 1 < tabOrder.size(); ++i)
        setTabOrder(tabOrder.at(i), tabOrder.at(i + 1));
    frame.setButtons(ui->pushButton_OK, ui->pushButton_Cancel);
    // Screen readers name each field by its label.
    ui->label_oldPin->setBuddy(ui->lineEdit_oldPin);
    ui->label_newPin->setBuddy(ui->lineEdit_newPin);
    ui->label_confirmPin->setBuddy(ui->lineEdit_confirmPin);

    if (!this->keyboardVisible) {
        ui->widget_softkeyboard->hide();
        ui->toolButtonold_softkeyboard->setChecked(false);
        ui->toolButtonnew_softkeyboard->setChecked(false);
    }

    RefreshLayout();

    QLineEdit *const edits[] = {ui->lineEdit_oldPin, ui->lineEdit_newPin, ui->lineEdit_confirmPin};
    for (QLineEdit *edit : edits)
        edit->installEventFilter(this);

    pinMinLen = static_cast<unsigned int>(service->GetPINMinLen());
    pinMaxLen = static_cast<unsigned int>(service->GetPINMaxLen());
    static const QRegularExpression simpleKeys(QStringLiteral("[a-zA-Z0-9]*"));
    for (QLineEdit *edit : edits) {
        DialogAccessibility::markPinField(edit);
        edit->setMaxLength(static_cast<int>(pinMaxLen));
        edit->setContextMenuPolicy(Qt::NoContextMenu);
        // Nothing may be dropped into a PIN field.
        edit->setAcceptDrops(false);
        // A refused key never enters the text, so no string holding it is left behind.
        if (keyBoardMode == SimpleKeyBoard && edit != ui->lineEdit_oldPin)
            edit->setValidator(new QRegularExpressionValidator(simpleKeys, edit));
    }

    for (QLineEdit *edit : edits)
        connect(edit, SIGNAL(returnPressed()), this, SLOT(on_pushButton_OK_clicked()));

    // A show/hide toggle inside each field; shown, the field still holds
    // its PIN in password echo (no copy to wipe, none to select).
    for (QLineEdit *edit : edits) {
        QAction *toggle = edit->addAction(QIcon(), QLineEdit::TrailingPosition);
        toggle->setObjectName(edit->objectName() + QStringLiteral("_show"));
        toggle->setCheckable(true);
        // The icon takes no focus: keyboard users toggle with a key instead.
        toggle->setShortcut(QKeySequence(Qt::CTRL | Qt::SHIFT | Qt::Key_H));
        toggle->setShortcutContext(Qt::WidgetShortcut);
        auto *reveal = new PinFieldReveal(edit);
        connect(toggle, &QAction::toggled, this, [this, reveal, toggle](bool shown) {
            reveal->setShown(shown);
            refreshShowToggle(toggle);
        });
        refreshShowToggle(toggle);
    }

    QTimer::singleShot(500, this, &PINDialog::SetWindowAcitive);

    // One icon object for every dialog: a new QIcon each time left new
    // scaled copies in QPixmapCache (10 MB of RSS before it evicts).
    static const QIcon logo(QStringLiteral(":/images/logo.ico"));
    setWindowIcon(logo);
    setWindowFlags(Qt::CustomizeWindowHint | Qt::WindowTitleHint | Qt::WindowStaysOnTopHint);
    setAttribute(Qt::WA_ShowModal);

    frame.centre();
}

PINDialog::~PINDialog()
{
    wipeInput();
    delete ui;
    ui = nullptr;
}

int PINDialog::rememberedWindowY() { return keepWindowY; }

/**
 * Shows a comment under the fields. Errors and warnings are red, good news
 * (a normal or strong new PIN) in the ordinary text colour; either way the
 * colour keeps a contrast of at least 4.5:1 with the window.
 */
void PINDialog::setComment(const QString &text, bool error)
{
    // The label's style sheet decides the drawn colour, so the colour goes there.
    const QColor colour = error ? readableRed(palette().color(QPalette::Window))
                                : palette().color(QPalette::WindowText);
    ui->label_comments->setStyleSheet(
            QStringLiteral("QLabel { margin-left:10px; color:%1; }").arg(colour.name()));
    ui->label_comments->setText(text);
    // Screen readers announce the comment as the fields' description.
    for (QLineEdit *edit : {ui->lineEdit_oldPin, ui->lineEdit_newPin, ui->lineEdit_confirmPin})
        edit->setAccessibleDescription(text);
    // Deliberate departure: a wrapped comment that needs more lines than the
    // form allows makes the window grow instead of being cut off (fonts at a
    // high dpi), and the window stays on the screen.
    const int needed = ui->label_comments->heightForWidth(ui->label_comments->width());
    if (needed > ui->label_comments->height()) {
        ui->label_comments->setMinimumHeight(needed);
        if (layout())
            layout()->activate();
        keepOnScreen();
    }
}

/**
 * Deliberate departure: a window that grew (the keyboard panel, a longer
 * comment) is moved back inside the screen's available area where it would
 * reach past it. Elsewhere its position is left exactly as it was.
 */
void PINDialog::keepOnScreen()
{
    const QScreen *s = screen();
    if (!s)
        return;
    const QRect area = s->availableGeometry();
    const QRect g = frameGeometry();
    const int x = qMax(area.left(), qMin(g.x(), area.right() + 1 - g.width()));
    const int y = qMax(area.top(), qMin(g.y(), area.bottom() + 1 - g.height()));
    if (x != g.x() || y != g.y())
        move(x, y);
}

/**
 * Deliberate departure: a dialog shown again after an accepted retry says
 * why it came back; `reason` is the retry question's text with the number of
 * tries left.
 */
void PINDialog::showRetryHint(const QString &reason)
{
    setComment(tr("Wrong PIN. %1").arg(reason));
}

/// The translated annotation of `key` with the service's current length bounds.
QString PINDialog::annotationText(const char *key) const
{
    return withBounds(tr(key), service->GetPINMinLen(), service->GetPINMaxLen());
}

QString PINDialog::lengthText() const
{
    return withBounds(tr("The password must be %1-%2 characters"), pinMinLen, pinMaxLen);
}

/// In simple keyboard mode a PIN holds letters and digits only: the text is cut
/// at the first other character. The other modes accept anything.
QString PINDialog::filteredText(const QString &text) const
{
    if (keyBoardMode != SimpleKeyBoard)
        return text;
    const int k = QRegExp(QStringLiteral("[^a-zA-Z0-9]"), Qt::CaseSensitive).indexIn(text);
    return k >= 0 ? text.left(k) : text;
}

/**
 * Deliberate departure: while the focus is in the on-screen keyboard (a
 * key pressed with Space), its keys still type into the PIN field last used.
 */
bool PINDialog::focusInKeyboard() const
{
    const QWidget *focus = QApplication::focusWidget();
    return keyboard && focus && (focus == keyboard || keyboard->isAncestorOf(focus));
}

bool PINDialog::isPinField(const QObject *obj) const
{
    return ui
           && (obj == ui->lineEdit_oldPin || obj == ui->lineEdit_newPin
               || obj == ui->lineEdit_confirmPin);
}

/**
 * Strength of a PIN: 0 too short, 2 forbidden pattern (repetition, straight
 * run, keyboard walk), otherwise 3, 4 or 5 by the number of character classes.
 * Only the lower bound is tested; the line edits' maximum length holds the upper.
 */
int PINDialog::IsValidPIN(QString pin)
{
    int level = 2;
    const int n = pin.size();
    if (n < static_cast<int>(pinMinLen)) {
        level = 0;
    } else {
        bool digit = false, lower = false, upper = false, other = false;
        for (const QChar c : pin) {
            const unsigned char b = static_cast<unsigned char>(c.toLatin1());
            if (b >= '0' && b <= '9')
                digit = true;
            else if (b >= 'a' && b <= 'z')
                lower = true;
            else if (b >= 'A' && b <= 'Z')
                upper = true;
            else
                other = true;
        }
        auto byteAt = [&pin](int i) { return static_cast<unsigned char>(pin.at(i).toLatin1()); };

        bool repeated = true;
        bool descending = true;
        bool ascending = true;
        bool walk = true;
        for (int i = 0; i < n - 1; ++i) {
            if (pin.at(i) != pin.at(i + 1))
                repeated = false;
            if (byteAt(i) != byteAt(i + 1) + 1)
                descending = false;
            if (byteAt(i) + 1 != byteAt(i + 1))
                ascending = false;
            if (endsWalk(unshiftedRow, pin.at(i), pin.at(i + 1))
                || endsWalk(shiftedRow, pin.at(i), pin.at(i + 1)))
                walk = false;
        }
        if (!repeated && !descending && !ascending && !walk) {
            const int classes = int(digit) + int(lower) + int(upper) + int(other);
            level = classes <= 1 ? 3 : classes == 2 ? 4 : 5;
        }
    }
    qDebug() << "return level=" << level;
    return level;
}

/// Part of the dialog's interface; the OK flow makes its own checks.
bool PINDialog::IsAllInputValid()
{
    const QString oldPin = ui->lineEdit_oldPin->text();
    const QString newPin = ui->lineEdit_newPin->text();
    const QString confirmPin = ui->lineEdit_confirmPin->text();
    switch (mode) {
    case 0:
    case 1:
    case 4:
    case 5:
        return IsValidPIN(oldPin) >= 1;
    case 2:
    case 3:
        return IsValidPIN(oldPin) >= 1 && IsValidPIN(newPin) >= 4 && newPin == confirmPin;
    case 6:
        return IsValidPIN(newPin) >= 4 && newPin == confirmPin;
    default:
        return false;
    }
}

void PINDialog::randomSoftKeyboard()
{
    // Kept on purpose: keyboardVisible is never set again after construction,
    // so focus changes do not reshuffle the keys.
    if (!keyboardVisible)
        return;
    if (keyBoardMode == SimpleKeyBoard) {
        if (auto *kb = qobject_cast<SimpleSoftKeyboard *>(keyboard))
            kb->randomSoftKeyboard();
    } else if (keyBoardMode == FullKeyBoard) {
        if (auto *kb = qobject_cast<SoftKeyboard *>(keyboard))
            kb->randomSoftKeyboard();
    }
}

/**
 * Tracks which PIN field receives on-screen keyboard input and keeps the
 * clipboard, the selection (middle click) and drag-and-drop away from the PIN
 * fields: typing and the on-screen keyboard are the only ways in or out.
 */
bool PINDialog::eventFilter(QObject *obj, QEvent *event)
{
    if (!ui)
        return QObject::eventFilter(obj, event);

    if (ui->lineEdit_oldPin->hasFocus())
        currentLineEdit = ui->lineEdit_oldPin;
    else if (ui->lineEdit_newPin->hasFocus())
        currentLineEdit = ui->lineEdit_newPin;
    else if (ui->lineEdit_confirmPin->hasFocus())
        currentLineEdit = ui->lineEdit_confirmPin;
    else if (!focusInKeyboard())
        currentLineEdit = nullptr;

    switch (event->type()) {
    case QEvent::KeyPress:
    case QEvent::KeyRelease: {
        const auto *keyEvent = static_cast<QKeyEvent *>(event);
        if ((keyEvent->matches(QKeySequence::Copy) || keyEvent->matches(QKeySequence::Paste)
             || keyEvent->matches(QKeySequence::Cut))
            && isPinField(obj))
            return true;
        if (keyEvent->key() == Qt::Key_CapsLock && isPinField(obj))
            refreshCapsLockHint();
        break;
    }
    case QEvent::FocusIn:
        if (isPinField(obj)) {
            qDebug() << "QEvent::FocusIn, obj=" << obj;
            randomSoftKeyboard();
            refreshCapsLockHint();
        }
        break;
    case QEvent::FocusOut:
        if (isPinField(obj))
            refreshCapsLockHint();
        break;
    case QEvent::MouseButtonPress:
    case QEvent::MouseButtonRelease:
    case QEvent::MouseButtonDblClick:
        // The middle button pastes the X selection on release.
        if (isPinField(obj) && static_cast<QMouseEvent *>(event)->button() == Qt::MiddleButton)
            return true;
        break;
    case QEvent::DragEnter:
    case QEvent::DragMove:
    case QEvent::Drop:
        if (isPinField(obj)) {
            event->ignore();
            return true;
        }
        break;
    default:
        break;
    }
    return QObject::eventFilter(obj, event);
}

/**
 * Appends a key of the on-screen keyboard. The edit takes a new string each
 * time; the one it held before (and any copy the edit did not keep) is
 * wiped, so no shorter or longer copy of the PIN stays behind.
 */
void PINDialog::receiveInput(char c)
{
    if (!currentLineEdit)
        return;
    QString previous = currentLineEdit->text();
    QString next = previous + QChar::fromLatin1(c);
    currentLineEdit->setText(next);
    wipeUnlessHeld(previous, currentLineEdit);
    wipeUnlessHeld(next, currentLineEdit);
}

void PINDialog::receiveBackspace()
{
    if (!currentLineEdit || currentLineEdit->text().isEmpty())
        return;
    QString previous = currentLineEdit->text();
    QString next = previous.chopped(1);
    currentLineEdit->setText(next);
    wipeUnlessHeld(previous, currentLineEdit);
    wipeUnlessHeld(next, currentLineEdit);
}

/**
 * Deliberate departure: no copy of the PIN may stay in the process once the
 * result has been handed over or the dialog goes. The edit's own string is
 * zeroed in place (the copy from text() shares it), then replaced by an empty
 * one, which also drops the edit's undo history.
 */
void PINDialog::wipeInput()
{
    if (!ui)
        return;
    for (QLineEdit *edit : {ui->lineEdit_oldPin, ui->lineEdit_newPin, ui->lineEdit_confirmPin}) {
        QString held = edit->text();
        wipeShared(held);
        edit->setText(QString());
    }
}

/// Language change: narrower than the constructor (kept on purpose: mode 1 keeps
/// "Old PIN:", mode 6 the form's labels, every mode the title "Form").
void PINDialog::ReTranslateUI()
{
    ui->retranslateUi(this);
    if (mode == 0)
        ui->label_oldPin->setText(tr("Input User Pin:"));
    else if (mode == 4 || mode == 5)
        ui->label_oldPin->setText(tr("Input Admin Pin:"));
    ui->label_fixcomment->setText(annotationText(QT_TR_NOOP("IDC_CUSTOM_PIN_ANNOTATION")));
}

void PINDialog::CleanLineEdits()
{
    ui->lineEdit_oldPin->clear();
    ui->lineEdit_newPin->clear();
    ui->lineEdit_confirmPin->clear();
}

void PINDialog::on_lineEdit_newPin_textChanged(const QString &text)
{
    const QString kept = filteredText(text);
    if (kept.size() != text.size())
        ui->lineEdit_newPin->setText(kept);
    if (kept.isEmpty())
        return;

    switch (IsValidPIN(kept)) {
    case 5:
        setComment(tr("Pin:High"), false);
        break;
    case 4:
        setComment(tr("Pin:Normal"), false);
        break;
    case 3:
        setComment(tr("Pin:Weak"));
        break;
    case 2:
        // Kept on purpose: the forbidden verdict falls through to the length rule.
        setComment(tr("Pin:Forbidden"));
        Q_FALLTHROUGH();
    default:
        setComment(lengthText());
        break;
    }
    RefreshNewPinStatus(false);
}

void PINDialog::on_lineEdit_confirmPin_textChanged(const QString &text)
{
    const QString kept = filteredText(text);
    if (kept.size() != text.size())
        ui->lineEdit_confirmPin->setText(kept);
}

/**
 * OK button, or Return in a PIN field: checks the fields and hands the
 * length-prefixed PINs to the service. The buffer and every byte copy of the
 * PINs are wiped before they are freed.
 */
void PINDialog::on_pushButton_OK_clicked()
{
    qDebug() << "on_pushButton_OK_clicked()";

    // isVisibleTo: the rows the mode shows, also while the window itself is hidden.
    if (ui->lineEdit_oldPin->isVisibleTo(this) && IsValidPIN(ui->lineEdit_oldPin->text()) == 0) {
        setComment(lengthText());
        ui->lineEdit_oldPin->clear();
        ui->lineEdit_oldPin->setFocus();
        return;
    }

    if (ui->lineEdit_newPin->isVisibleTo(this)) {
        const int level = IsValidPIN(ui->lineEdit_newPin->text());
        bool rejected = true;
        if (level == 0)
            setComment(lengthText());
        else if (level >= 4 && ui->lineEdit_confirmPin->text() != ui->lineEdit_newPin->text())
            setComment(tr("Please confirm that new USBKey password is entered identiacally!"));
        else if (level >= 1 && level <= 3)
            setComment(tr("IDC_CUSTOM_PIN_ANNOTATION_2"));
        else
            rejected = false;
        if (rejected) {
            ui->lineEdit_newPin->clear();
            ui->lineEdit_confirmPin->clear();
            ui->lineEdit_newPin->setFocus();
            return;
        }
    }

    QByteArray oldPin = ui->lineEdit_oldPin->text().toUtf8();
    QByteArray newPin = ui->lineEdit_newPin->text().toUtf8();
    const uint32_t oldLen
            = static_cast<uint32_t>(strnlen(oldPin.constData(), size_t(oldPin.size())));
    const uint32_t newLen
            = static_cast<uint32_t>(strnlen(newPin.constData(), size_t(newPin.size())));
    const size_t allocated = size_t(oldLen) + newLen + 16;
    auto *buffer = static_cast<unsigned char *>(malloc(allocated));
    if (!buffer) {
        qWarning() << "on_pushButton_OK_clicked: out of memory";
        explicit_bzero(oldPin.data(), size_t(oldPin.capacity()));
        explicit_bzero(newPin.data(), size_t(newPin.capacity()));
        return;
    }
    // Best effort: keep the PINs out of swap while they are here.
    const bool locked = mlock(buffer, allocated) == 0;

    unsigned char *p = buffer;
    const uint32_t lengths[2] = {oldLen, newLen};
    const char *const pins[2] = {oldPin.constData(), newPin.constData()};
    for (int i = 0; i < 2; ++i) {
        const uint32_t len = lengths[i];
        p[0] = static_cast<unsigned char>(len & 0xFF);
        p[1] = static_cast<unsigned char>((len >> 8) & 0xFF);
        p[2] = static_cast<unsigned char>((len >> 16) & 0xFF);
        p[3] = static_cast<unsigned char>((len >> 24) & 0xFF);
        memcpy(p + 4, pins[i], len);
        p += 4 + len;
    }

    frame.answered();
    // The service copies the buffer before it returns; nothing below touches a member.
    service->SetPINStatus(1, buffer, 8ul + oldLen + newLen);

    explicit_bzero(buffer, allocated);
    if (locked)
        munlock(buffer, allocated);
    free(buffer);
    explicit_bzero(oldPin.data(), size_t(oldPin.capacity()));
    explicit_bzero(newPin.data(), size_t(newPin.capacity()));
}

void PINDialog::on_pushButton_Cancel_clicked()
{
    frame.answered();
    // The service deletes this dialog inside the call.
    service->SetPINStatus(0, nullptr, 0);
}

void PINDialog::on_toolButtonold_softkeyboard_toggled(bool checked)
{
    qDebug() << "on_toolButtonold_softkeyboard_toggled: checked=" << checked;
    ui->widget_softkeyboard->setVisible(checked);
    RefreshLayout();
}

void PINDialog::on_toolButtonnew_softkeyboard_toggled(bool checked)
{
    qDebug() << "on_toolButtonnew_softkeyboard_toggled: checked=" << checked;
    ui->widget_softkeyboard->setVisible(checked);
    RefreshLayout();
}

void PINDialog::RefreshNewPinStatus(bool)
{
    // The comparison has no visible outcome: only the tool tip goes away.
    const bool same = ui->lineEdit_newPin->text() == ui->lineEdit_confirmPin->text();
    Q_UNUSED(same);
    QToolTip::hideText();
}

void PINDialog::RefreshNewPinStatus() { RefreshNewPinStatus(true); }

/**
 * Keeps asking for activation every half second until the window has it.
 * Deliberate departure: where the platform refuses such requests (Wayland)
 * the request is made once, with no retry loop.
 */
void PINDialog::SetWindowAcitive()
{
    qDebug() << "SetWindowAcitive: is focus on?" << isActiveWindow();
    if (isActiveWindow())
        return;
    qDebug() << "SetWindowAcitive: set dialog focus";
    activateWindow();
    if (WindowActivation::retriesActivation())
        QTimer::singleShot(500, this, &PINDialog::SetWindowAcitive);
}

/**
 * Lines up the visible PIN rows (common label width, common edit width) and
 * keeps the window at the remembered height while it grows and shrinks with
 * the keyboard panel.
 */
void PINDialog::RefreshLayout()
{
    qDebug() << "RefreshLayout: before adjust:" << frameGeometry();
    if (frameGeometry().y() != 0 && keepWindowY == 0)
        keepWindowY = frameGeometry().y();
    adjustSize();
    qDebug() << "RefreshLayout: after adjust first time:" << size();

    int pinlabelmaxlen = 0;
    int pineditlen = 0;
    if (mode != 6) {
        pinlabelmaxlen = qMax(pinlabelmaxlen, ui->label_oldPin->width());
        pineditlen = ui->lineEdit_oldPin->width();
        qDebug() << "RefreshLayout: ui->label_oldPin->width()=" << ui->label_oldPin->width()
                 << ",ui->lineEdit_oldPin->width()=" << ui->lineEdit_oldPin->width();
        qDebug() << "RefreshLayout: pinlabelmaxlen=" << pinlabelmaxlen
                 << ",pineditlen=" << pineditlen;
    }
    if (mode == 2 || mode == 3 || mode == 6) {
        pinlabelmaxlen = qMax(pinlabelmaxlen, ui->label_newPin->width());
        pineditlen = ui->lineEdit_newPin->width();
        qDebug() << "RefreshLayout: ui->label_newPin->width()=" << ui->label_newPin->width()
                 << ",ui->lineEdit_newPin->width()=" << ui->lineEdit_newPin->width();
        qDebug() << "RefreshLayout: pinlabelmaxlen=" << pinlabelmaxlen
                 << ",pineditlen=" << pineditlen;
        pinlabelmaxlen = qMax(pinlabelmaxlen, ui->label_confirmPin->width());
        pineditlen = ui->lineEdit_confirmPin->width();
        qDebug() << "RefreshLayout: ui->label_confirmPin->width()=" << ui->label_confirmPin->width()
                 << ",ui->lineEdit_confirmPin->width()=" << ui->lineEdit_confirmPin->width();
        qDebug() << "RefreshLayout: pinlabelmaxlen=" << pinlabelmaxlen
                 << ",pineditlen=" << pineditlen;
    }

    ui->label_oldPin->setFixedWidth(pinlabelmaxlen);
    ui->lineEdit_oldPin->setFixedWidth(pineditlen);
    ui->label_newPin->setFixedWidth(pinlabelmaxlen);
    ui->lineEdit_newPin->setFixedWidth(pineditlen);
    ui->label_confirmPin->setFixedWidth(pinlabelmaxlen);
    ui->lineEdit_confirmPin->setFixedWidth(pineditlen);

    auto logWidths = [this]() {
        qDebug() << "RefreshLayout: ui->label_oldPin->width()=" << ui->label_oldPin->width()
                 << ",ui->lineEdit_oldPin->width()=" << ui->lineEdit_oldPin->width();
        qDebug() << "RefreshLayout: ui->label_newPin->width()=" << ui->label_newPin->width()
                 << ",ui->lineEdit_newPin->width()=" << ui->lineEdit_newPin->width();
        qDebug() << "RefreshLayout: ui->label_confirmPin->width()=" << ui->label_confirmPin->width()
                 << ",ui->lineEdit_confirmPin->width()=" << ui->lineEdit_confirmPin->width();
    };
    logWidths();
    // The nested row layouts still hold the hints measured before the widths
    // were fixed; activating refreshes them so the second adjustment fits.
    ui->verticalLayout->activate();
    adjustSize();
    qDebug() << "RefreshLayout: after adjust second time:" << size();
    logWidths();

    qDebug() << "RefreshLayout: after adjust:" << frameGeometry()
             << ", keepWindowY=" << keepWindowY;
    if (keepWindowY != 0)
        move(frameGeometry().x(), keepWindowY);
    keepOnScreen();
    qDebug() << "RefreshLayout: finally:" << frameGeometry();
}

/**
 * A PIN shown in clear is hidden again whenever the dialog goes out of view,
 * and the Caps Lock hint goes with it.
 */
void PINDialog::hideEvent(QHideEvent *event)
{
    if (ui) {
        for (QAction *toggle :
             findChildren<QAction *>(QRegularExpression(QStringLiteral("_show$"))))
            toggle->setChecked(false);
        ui->label_capsLock->hide();
    }
    QWidget::hideEvent(event);
}

void PINDialog::refreshShowToggle(QAction *toggle)
{
    const bool shown = toggle->isChecked();
    toggle->setText(shown ? tr("Hide PIN") : tr("Show PIN"));
    toggle->setToolTip(toggle->text());
    toggle->setIcon(eyeIcon(palette().color(QPalette::Text), !shown));
}

/**
 * Shows the Caps Lock hint while a PIN field has the focus and the display
 * server reports Caps Lock on; shows nothing where it cannot tell.
 */
void PINDialog::refreshCapsLockHint()
{
    const QWidget *focus = QApplication::focusWidget();
    const bool show = focus && isPinField(focus) && isVisible()
                      && CapsLockState::query() == CapsLockState::On;
    if (show == ui->label_capsLock->isVisible())
        return;
    ui->label_capsLock->setVisible(show);
    RefreshLayout();
}

void PINDialog::changeEvent(QEvent *event)
{
    // Caps Lock may have been switched in another window meanwhile.
    if (event->type() == QEvent::ActivationChange && ui)
        refreshCapsLockHint();
    QWidget::changeEvent(event);
}
