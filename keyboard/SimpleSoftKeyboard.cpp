#include "SimpleSoftKeyboard.h"
#include "ui_SimpleSoftKeyboard.h"

#include "KeyboardKeys.h"

#include <QLabel>
#include <QList>

namespace {

// This keyboard's own maps (the full keyboard has maps of the same names in
// its own source unit). Digits have no shifted faces here.
const QString normalNumberMap = QStringLiteral("0123456789");
const QString normalCharMap = QStringLiteral("abcdefghijklmnopqrstuvwxyz");
const QString shiftCharMap = QStringLiteral("ABCDEFGHIJKLMNOPQRSTUVWXYZ");

} // namespace

SimpleSoftKeyboard::SimpleSoftKeyboard(float scale, QWidget *parent)
    : QWidget(parent)
    , ui(new Ui::SimpleSoftKeyboard)
{
    ui->setupUi(this);
    // Digits have no shifted faces here: both states show the plain map.
    keys = std::make_unique<KeyboardKeys>(
            this, "SimpleSoftKeyboard",
            QList<KeyboardKeys::Group>{
                    {"label_number_", 1, numberOrder, &normalNumberMap, &normalNumberMap},
                    {"label_char_", 2, charOrder, &normalCharMap, &shiftCharMap}});
    ResizeWithScale(scale);
    installEventFilter(this);
    for (QLabel *key : keys->keys())
        key->installEventFilter(this);
    shiftOn = false;
    // Nothing to seed: the shuffle draws from the system source, so the
    // layout cannot be derived from the time of construction.
    randomSoftKeyboard();
}

SimpleSoftKeyboard::~SimpleSoftKeyboard() { delete ui; }

/**
 * Acts on one pressed key: shift toggles the letter faces, backspace and the
 * character keys emit.
 */
void SimpleSoftKeyboard::on_key_pressed(QObject *key)
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
void SimpleSoftKeyboard::ResizeWithScale(float scale) { keys->scale(scale); }

/**
 * Mouse and keyboard handling of the keys; see KeyboardKeys::filter. A
 * mouse press is never consumed.
 */
bool SimpleSoftKeyboard::eventFilter(QObject *watched, QEvent *event)
{
    QObject *pressed = nullptr;
    const bool consumed = keys->filter(watched, event, &pressed);
    if (pressed)
        on_key_pressed(pressed);
    return consumed || QWidget::eventFilter(watched, event);
}

/**
 * Deals new random orders to the digits and then the letters, and rewrites
 * the key faces.
 */
void SimpleSoftKeyboard::randomSoftKeyboard()
{
    keys->shuffle();
    refreshSoftKeyboard();
}

/**
 * Writes the key faces: letters by the shift state, digits always plain.
 */
void SimpleSoftKeyboard::refreshSoftKeyboard() { keys->refresh(shiftOn); }
