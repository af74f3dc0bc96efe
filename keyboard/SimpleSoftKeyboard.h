#pragma once

#include <QWidget>

#include <memory>

class KeyboardKeys;

namespace Ui {
class SimpleSoftKeyboard;
}

/**
 * The smaller on-screen keyboard: 36 shuffled digit and letter keys, shift
 * for capitals and delete. Same contract as SoftKeyboard.
 */
class SimpleSoftKeyboard : public QWidget
{
    Q_OBJECT
public:
    explicit SimpleSoftKeyboard(float scale, QWidget *parent = nullptr);
    ~SimpleSoftKeyboard() override;

    void on_key_pressed(QObject *key);
    void ResizeWithScale(float scale);

    const int *numberOrderData() const { return numberOrder; }
    const int *charOrderData() const { return charOrder; }
    bool isShiftOn() const { return shiftOn; }

signals:
    void input_char(char character);
    void input_backspace();

public slots:
    bool eventFilter(QObject *watched, QEvent *event) override;
    void randomSoftKeyboard();
    void refreshSoftKeyboard();

private:
    Ui::SimpleSoftKeyboard *ui = nullptr;
    int numberOrder[10];
    int charOrder[26];
    bool shiftOn = false;
    std::unique_ptr<KeyboardKeys> keys;
};
