#pragma once

#include <QWidget>

#include <memory>

class KeyboardKeys;

namespace Ui {
class SoftKeyboard;
}

/**
 * On-screen keyboard of 50 keys whose characters are dealt to the key
 * positions in a random order within three groups (digits, letters,
 * punctuation). Emits one signal per typed character or backspace.
 */
class SoftKeyboard : public QWidget
{
    Q_OBJECT
public:
    explicit SoftKeyboard(float scale, QWidget *parent = nullptr);
    ~SoftKeyboard() override;

    void on_key_pressed(QObject *key);
    void ResizeWithScale(float scale);

    // Read-only views for tests.
    const int *numberOrderData() const { return numberOrder; }
    const int *charOrderData() const { return charOrder; }
    const int *noteOrderData() const { return noteOrder; }
    bool isShiftOn() const { return shiftOn; }

signals:
    void input_char(char character);
    void input_backspace();

public slots:
    bool eventFilter(QObject *watched, QEvent *event) override;
    void randomSoftKeyboard();
    void refreshSoftKeyboard();

private:
    Ui::SoftKeyboard *ui = nullptr;
    int numberOrder[10];
    int charOrder[26];
    int noteOrder[11];
    bool shiftOn = false;
    std::unique_ptr<KeyboardKeys> keys;
};
