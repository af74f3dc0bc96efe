#pragma once

#include "DialogFrame.h"

#include <QString>
#include <QWidget>

class QLineEdit;
class UiStatusHandler;

namespace Ui {
class PINDialog;
}

/**
 * Top-level window in which the user types a PIN: verify, change, unblock or
 * set, for the user or the administrator. Reports through the UI service's
 * SetPINStatus and never closes itself.
 */
class PINDialog : public QWidget
{
    Q_OBJECT
public:
    enum KeyBoardMode { SimpleKeyBoard = 0, FullKeyBoard = 1 };

    PINDialog(PINDialog::KeyBoardMode keyBoardMode, bool keyboardVisible, unsigned long type,
              UiStatusHandler *service, float scale, QWidget *parent = nullptr);
    ~PINDialog() override;

    bool IsAllInputValid();
    int IsValidPIN(QString pin);
    void randomSoftKeyboard();
    // Overwrites the typed PINs where the fields keep them, then empties the fields.
    void wipeInput();
    void showRetryHint(const QString &reason);
    // Text of the comment line; `error` false for good news (a strong PIN).
    void setComment(const QString &text, bool error = true);

    unsigned int dialogMode() const { return mode; }

    // Test accessors.
    QWidget *keyboardWidget() const { return keyboard; }
    bool isKeyboardVisible() const { return keyboardVisible; }
    QLineEdit *currentInputLineEdit() const { return currentLineEdit; }
    static int rememberedWindowY();

signals:
    void ShowMessageBox(int, QString, QString);

public:
    Q_INVOKABLE bool eventFilter(QObject *obj, QEvent *event) override;

public slots:
    void receiveInput(char c);
    void receiveBackspace();
    void ReTranslateUI();
    void CleanLineEdits();
    void on_lineEdit_newPin_textChanged(const QString &text);
    void on_lineEdit_confirmPin_textChanged(const QString &text);
    void on_pushButton_OK_clicked();
    void on_pushButton_Cancel_clicked();
    void on_toolButtonold_softkeyboard_toggled(bool checked);
    void on_toolButtonnew_softkeyboard_toggled(bool checked);
    void RefreshNewPinStatus(bool);
    void RefreshNewPinStatus();
    void SetWindowAcitive();
    void RefreshLayout();

protected:
    bool event(QEvent *e) override { return frame.event(e) || QWidget::event(e); }
    void changeEvent(QEvent *event) override;
    void hideEvent(QHideEvent *event) override;

private:
    void keepOnScreen();
    QString annotationText(const char *key) const;
    QString lengthText() const;
    QString filteredText(const QString &text) const;
    bool isPinField(const QObject *obj) const;
    bool focusInKeyboard() const;
    void refreshShowToggle(QAction *toggle);
    void refreshCapsLockHint();

    UiStatusHandler *service = nullptr;
    QWidget *keyboard = nullptr;
    Ui::PINDialog *ui = nullptr;
    QLineEdit *currentLineEdit = nullptr;
    unsigned int mode = 0xFFFFFFFFu;
    KeyBoardMode keyBoardMode;
    bool keyboardVisible;
    unsigned int pinMinLen = 0;
    unsigned int pinMaxLen = 0;
    float scale;
    DialogFrame frame{this};
};
