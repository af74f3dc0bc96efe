#pragma once

#include <QString>
#include <QWidget>

namespace Ui {
class CertListDialog;
}

/**
 * Lets the user pick one container from a newline-separated list; reports
 * the row (or a cancel) through the UI service's SetListSelectStatus.
 */
class CertListDialog : public QWidget
{
    Q_OBJECT
public:
    CertListDialog(QString list, QObject *service, float scale, QWidget *parent = nullptr);
    ~CertListDialog() override;

private slots:
    void on_pushButton_OK_clicked();
    void on_pushButton_Cancel_clicked();

protected:
    void closeEvent(QCloseEvent *event) override;
    void keyPressEvent(QKeyEvent *event) override;
    void changeEvent(QEvent *event) override;

private:
    void report(int status, int index);

    Ui::CertListDialog *ui = nullptr;
    QObject *service = nullptr;
    // Set before the first status report, so a later window-manager close stays silent.
    bool answered = false;
};
