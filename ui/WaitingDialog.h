#pragma once

#include "DialogFrame.h"

#include <QString>
#include <QWidget>

class QMovie;
class QTimer;

namespace Ui {
class WaitingDialog;
}

/**
 * Shown while the token is busy or waits for its button: a title and a
 * message by type code, an optional animation, and a countdown taken from
 * the information text. No buttons; the UI service deletes it.
 */
class WaitingDialog : public QWidget
{
    Q_OBJECT
public:
    WaitingDialog(QString info, unsigned long type, int timeout, QString picturePath, float scale,
                  QWidget *parent = nullptr);
    ~WaitingDialog() override;

    int remainingCountdown() const { return countdown; }
    bool isCounting() const { return timer != nullptr; }
    QMovie *animation() const { return movie; }

public slots:
    void refreshtimeout();

private:
    Ui::WaitingDialog *ui = nullptr;
    int countdown = 0;
    QTimer *timer = nullptr;
    QMovie *movie = nullptr;
    float scale = 1.0f;
    DialogFrame frame{this};
};
