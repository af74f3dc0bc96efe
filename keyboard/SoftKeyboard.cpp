#include "SoftKeyboard.h"
#include "ui_SoftKeyboard.h"

#include "KeyboardKeys.h"

#include <QLabel>
#include <QList>

namespace {

// Index i of a normal map and of its shift map are the two faces of one key
// of a US layout, so shift changes what a key shows but never where it is.
const QString normalNumberMap = QStringLiteral("0123456789");
const QString shiftNumberMap = QStringLiteral(")!@#$%^&*(");
const QString normalCharMap = QStringLiteral("abcdefghijklmnopqrstuvwxyz");
const QString shiftCharMap = QStringLiteral("ABCDEFGHIJKLMNOPQRSTUVWXYZ");
const QString normalNoteMap = QStringLiteral("`-=[]\\;',./");
const QString shiftNoteMap = QStringLiteral("~_+{}|:\"<>?");

} // namespace

SoftKeyboard::SoftKeyboard(float scale, QWidget *parent)
    : QWidget(parent)
    , ui(new Ui::SoftKeyboard)
{
    ui->setupUi(this);
    keys = std::make_unique<KeyboardKeys>(
            this, "SoftKeyboard",
            QList<KeyboardKeys::Group>{
                    {"label_number_", 1, numberOrder, &normalNumberMap, &shiftNumberMap},
                    {"label_char_", 2, charOrder, &normalCharMap, &shiftCharMap},
                    {"label_note_", 2, noteOrder, &normalNoteMap, &shiftNoteMap}});
    ResizeWithScale(scale);
    installEventFilter(this);
    for (QLabel *key : keys->keys())
        key->installEventFilter(this);
    shiftOn = false;
    // Nothing to seed: the shuffle draws from the system source, so the
    // layout cannot be derived from the time of construction.
    randomSoftKeyboard();
}

SoftKeyboard::~SoftKeyboard() { delete ui; }

/**
 * Acts on one pressed key: shift toggles the faces, backspace and the
 * character keys emit.
 */
void SoftKeyboard::on_key_pressed(QObject *key)
{
    char character = 0;
    switch (keys->press(key, &character)) {
    case KeyboardKeys::Shift:
        shiftOn = !shiftOn;
        refreshSoftKeyboard();
        break;
    case KeyboardKeys::Character:
        emit input_char(character);
        break;
    case KeyboardKeys::Backspace:
        emit input_backspace();
        break;
    case KeyboardKeys::NoAction:
        break;
    }
}

/**
 * Scales the keyboard and every key by @p scale relative to their current
 * geometry; a second call compounds (the constructor calls it once).
 */
void SoftKeyboard::ResizeWithScale(float scale) { keys->scale(scale); }

/**
 * Mouse and keyboard handling of the keys; see KeyboardKeys::filter. A
 * mouse press is never consumed.
 */
bool SoftKeyboard::eventFilter(QObject *watched, QEvent *event)
{
    QObject *pressed = nullptr;
    const bool consumed = keys->filter(watched, event, &pressed);
    if (pressed)
        on_key_pressed(pressed);
    return consumed || QWidget::eventFilter(watched, event);
}

/**
 * Deals new random orders to the digits, the letters and the punctuation
 * keys, in that order, and rewrites the key faces.
 */
void SoftKeyboard::randomSoftKeyboard()
{
    keys->shuffle();
    refreshSoftKeyboard();
}

/**
 * Writes the key faces from the orders and the shift state; the function
 * keys keep their form texts.
 */
void SoftKeyboard::refreshSoftKeyboard() { keys->refresh(shiftOn); }
