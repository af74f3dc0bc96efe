#include "SoftKeyboard.h"
#include "ui_SoftKeyboard.h"

#include <QDebug>
#include <QEvent>
#include <QLabel>
#include <QList>
#include <QMouseEvent>
#include <QRandomGenerator>

namespace {

// Index i of a normal map and of its shift map are the two faces of one key
// of a US layout, so shift changes what a key shows but never where it is.
const QString normalNumberMap = QStringLiteral("0123456789");
const QString shiftNumberMap = QStringLiteral(")!@#$%^&*(");
const QString normalCharMap = QStringLiteral("abcdefghijklmnopqrstuvwxyz");
const QString shiftCharMap = QStringLiteral("ABCDEFGHIJKLMNOPQRSTUVWXYZ");
const QString normalNoteMap = QStringLiteral("`-=[]\\;',./");
const QString shiftNoteMap = QStringLiteral("~_+{}|:\"<>?");

const int numberCount = 10;
const int charCount = 26;
const int noteCount = 11;

// The keys by group and index; the form declares them in its own order.
QLabel *numberKey(const Ui::SoftKeyboard *ui, int k)
{
    QLabel *const keys[numberCount]
            = {ui->label_number_0, ui->label_number_1, ui->label_number_2, ui->label_number_3,
               ui->label_number_4, ui->label_number_5, ui->label_number_6, ui->label_number_7,
               ui->label_number_8, ui->label_number_9};
    return keys[k];
}

QLabel *charKey(const Ui::SoftKeyboard *ui, int i)
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

QLabel *noteKey(const Ui::SoftKeyboard *ui, int k)
{
    QLabel *const keys[noteCount]
            = {ui->label_note_00, ui->label_note_01, ui->label_note_02, ui->label_note_03,
               ui->label_note_04, ui->label_note_05, ui->label_note_06, ui->label_note_07,
               ui->label_note_08, ui->label_note_09, ui->label_note_10};
    return keys[k];
}

// All 50 keys: the three groups, then the function keys.
QList<QLabel *> allKeys(const Ui::SoftKeyboard *ui)
{
    QList<QLabel *> keys;
    for (int k = 0; k < numberCount; ++k)
        keys.append(numberKey(ui, k));
    for (int i = 0; i < charCount; ++i)
        keys.append(charKey(ui, i));
    for (int k = 0; k < noteCount; ++k)
        keys.append(noteKey(ui, k));
    keys << ui->label_delete << ui->label_shift << ui->label_space;
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

SoftKeyboard::SoftKeyboard(float scale, QWidget *parent)
    : QWidget(parent)
    , ui(new Ui::SoftKeyboard)
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

SoftKeyboard::~SoftKeyboard() { delete ui; }

/**
 * Acts on one clicked key. The character sent is read from the key's face,
 * so it is always exactly what the user saw on the key at that moment.
 */
void SoftKeyboard::on_key_pressed(QObject *key)
{
    if (key == ui->label_shift) {
        shiftOn = !shiftOn;
        refreshSoftKeyboard();
    } else if (key == ui->label_space) {
        emit input_char(' ');
    } else if (key != ui->label_delete) {
        const QLabel *label = qobject_cast<const QLabel *>(key);
        if (!label || label->text().isEmpty()) {
            qDebug() << "SoftKeyboard::on_key_pressed: key without a face, key=" << key;
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
void SoftKeyboard::ResizeWithScale(float scale)
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
bool SoftKeyboard::eventFilter(QObject *watched, QEvent *event)
{
    if (event->type() == QEvent::MouseButtonPress
        && static_cast<QMouseEvent *>(event)->button() == Qt::LeftButton && watched != this)
        on_key_pressed(watched);
    return QWidget::eventFilter(watched, event);
}

/**
 * Deals new random orders to the digits, the letters and the punctuation
 * keys, in that order, and rewrites the key faces.
 */
void SoftKeyboard::randomSoftKeyboard()
{
    QList<int> pool;
    dealOrder(pool, numberOrder, numberCount);
    dealOrder(pool, charOrder, charCount);
    dealOrder(pool, noteOrder, noteCount);
    refreshSoftKeyboard();
}

/**
 * Writes the key faces from the orders and the shift state; the function
 * keys keep their form texts.
 */
void SoftKeyboard::refreshSoftKeyboard()
{
    const QString &charMap = shiftOn ? shiftCharMap : normalCharMap;
    const QString &numberMap = shiftOn ? shiftNumberMap : normalNumberMap;
    const QString &noteMap = shiftOn ? shiftNoteMap : normalNoteMap;
    for (int i = 0; i < charCount; ++i)
        charKey(ui, i)->setText(QString(charMap.at(charOrder[i])));
    for (int k = 0; k < numberCount; ++k)
        numberKey(ui, k)->setText(QString(numberMap.at(numberOrder[k])));
    for (int k = 0; k < noteCount; ++k)
        noteKey(ui, k)->setText(QString(noteMap.at(noteOrder[k])));
}
