#pragma once

#include <QMap>
#include <QString>
#include <QWidget>

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
    MessageDialog(QString title, QString message, unsigned long type, QObject *service, float scale,
                  QWidget *parent = nullptr);
    ~MessageDialog() override;

private slots:
    void on_pushButton_OK_clicked();
    void on_pushButton_Retry_clicked();
    void on_pushButton_Cancel_clicked();

protected:
    void closeEvent(QCloseEvent *event) override;
    void keyPressEvent(QKeyEvent *event) override;
    void changeEvent(QEvent *event) override;

private:
    void makeStrMap();
    void report(int status);

    Ui::MessageDialog *ui = nullptr;
    QObject *service = nullptr;
    QMap<QString, QString> strMap;
    unsigned long type = 0;
    // Set before the first status report, so a later window-manager close stays silent.
    bool answered = false;
};
