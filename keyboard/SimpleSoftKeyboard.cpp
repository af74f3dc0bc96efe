#include "SimpleSoftKeyboard.h"
#include "ui_SimpleSoftKeyboard.h"

#include <QDebug>
#include <QEvent>
#include <QLabel>
#include <QList>
#include <QMouseEvent>
#include <QRandomGenerator>

namespace {

// This keyboard's own maps (the full keyboard has maps of the same names in
// its own source unit). Digits have no shifted faces here.
const QString normalNumberMap = QStringLiteral("0123456789");
const QString normalCharMap = QStringLiteral("abcdefghijklmnopqrstuvwxyz");
const QString shiftCharMap = QStringLiteral("ABCDEFGHIJKLMNOPQRSTUVWXYZ");

const int numberCount = 10;
const int charCount = 26;

// The keys by group and index; the form declares them in its own order.
QLabel *numberKey(const Ui::SimpleSoftKeyboard *ui, int k)
{
    QLabel *const keys[numberCount]
            = {ui->label_number_0, ui->label_number_1, ui->label_number_2, ui->label_number_3,
               ui->label_number_4, ui->label_number_5, ui->label_number_6, ui->label_number_7,
               ui->label_number_8, ui->label_number_9};
    return keys[k];
}

QLabel *charKey(const Ui::SimpleSoftKeyboard *ui, int i)
{
    QLabel *const keys[charCount]
            = {ui->label_char_00, ui->label_char_01, ui->label_char_02, ui->label_char_03,
               ui->label_char_04, ui->label_char_05, ui->label_char_06, ui->label_char_07,
               ui->label_char_08, ui->label_char_09, ui->label_char_10, ui->label_char_11,
               ui->label_char_12, ui->label_char_13, ui->label_char_14, ui->label_char_15,
               ui->label_char_16, ui->label_char_17, ui->label_char_18, ui->label_char_19,
               ui->label_char_20, ui->label_char_21, ui->label_char_22, ui->label_char_23,
               ui->label_char_24, ui->label_char_25};
    return keys[i];
}

// All 38 keys: digits, letters, then the function keys.
QList<QLabel *> allKeys(const Ui::SimpleSoftKeyboard *ui)
{
    QList<QLabel *> keys;
    for (int k = 0; k < numberCount; ++k)
        keys.append(numberKey(ui, k));
    for (int i = 0; i < charCount; ++i)
        keys.append(charKey(ui, i));
    keys << ui->label_delete << ui->label_shift;
    return keys;
}

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

} // namespace

SimpleSoftKeyboard::SimpleSoftKeyboard(float scale, QWidget *parent)
    : QWidget(parent)
    , ui(new Ui::SimpleSoftKeyboard)
{
    ui->setupUi(this);
    ResizeWithScale(scale);
    for (QLabel *key : allKeys(ui))
        key->installEventFilter(this);
    shiftOn = false;
    // Nothing to seed: the shuffle draws from the system source, so the
    // layout cannot be derived from the time of construction.
    randomSoftKeyboard();
}

SimpleSoftKeyboard::~SimpleSoftKeyboard() { delete ui; }

/**
 * Acts on one clicked key. The character sent is read from the key's face,
 * so it is always exactly what the user saw on the key at that moment.
 */
void SimpleSoftKeyboard::on_key_pressed(QObject *key)
{
    if (key == ui->label_shift) {
        shiftOn = !shiftOn;
        refreshSoftKeyboard();
    } else if (key != ui->label_delete) {
        const QLabel *label = qobject_cast<const QLabel *>(key);
        if (!label || label->text().isEmpty()) {
            qDebug() << "SimpleSoftKeyboard::on_key_pressed: key without a face, key=" << key;
            return;
        }
        emit input_char(label->text().at(0).toLatin1());
    } else {
        emit input_backspace();
    }
}

/**
 * Scales the keyboard and every key by @p scale relative to their current
 * geometry; a second call compounds (the constructor calls it once).
 */
void SimpleSoftKeyboard::ResizeWithScale(float scale)
{
    resize(size() * static_cast<double>(scale));
    for (QLabel *key : allKeys(ui)) {
        key->move(key->pos() * scale);
        key->resize(key->size() * static_cast<double>(scale));
    }
}

/**
 * Turns a left-button press on a key into a key press. The event is never
 * consumed. A quick second click arrives as MouseButtonDblClick and is
 * ignored, so a double click types one character.
 */
bool SimpleSoftKeyboard::eventFilter(QObject *watched, QEvent *event)
{
    if (event->type() == QEvent::MouseButtonPress
        && static_cast<QMouseEvent *>(event)->button() == Qt::LeftButton && watched != this)
        on_key_pressed(watched);
    return QWidget::eventFilter(watched, event);
}

/**
 * Deals new random orders to the digits and then the letters, and rewrites
 * the key faces.
 */
void SimpleSoftKeyboard::randomSoftKeyboard()
{
    QList<int> pool;
    dealOrder(pool, numberOrder, numberCount);
    dealOrder(pool, charOrder, charCount);
    refreshSoftKeyboard();
}

/**
 * Writes the key faces: letters by the shift state, digits always plain.
 */
void SimpleSoftKeyboard::refreshSoftKeyboard()
{
    const QString &charMap = shiftOn ? shiftCharMap : normalCharMap;
    for (int i = 0; i < charCount; ++i)
        charKey(ui, i)->setText(QString(charMap.at(charOrder[i])));
    for (int k = 0; k < numberCount; ++k)
        numberKey(ui, k)->setText(QString(normalNumberMap.at(numberOrder[k])));
}
