#pragma once

#include "DialogFrame.h"

#include <QMap>
#include <QString>
#include <QWidget>

class UiStatusHandler;

namespace Ui {
class MessageDialog;
}

/**
 * Always-on-top box with a title and one line of text: OK alone, or Retry
 * and Cancel for type 5. Reports through the UI service's SetMsgStatus.
 */
class MessageDialog : public QWidget
{
    Q_OBJECT
public:
    MessageDialog(QString title, QString message, unsigned long type, UiStatusHandler *service,
                  float scale, QWidget *parent = nullptr);
    ~MessageDialog() override;

private slots:
    void on_pushButton_OK_clicked();
    void on_pushButton_Retry_clicked();
    void on_pushButton_Cancel_clicked();

protected:
    bool event(QEvent *e) override { return frame.event(e) || QWidget::event(e); }

private:
    void makeStrMap();
    void report(int status);

    Ui::MessageDialog *ui = nullptr;
    UiStatusHandler *service = nullptr;
    QMap<QString, QString> strMap;
    DialogFrame frame{this};
};
