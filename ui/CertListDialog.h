#pragma once

#include "DialogFrame.h"

#include <QString>
#include <QWidget>

class UiStatusHandler;

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
    CertListDialog(QString list, UiStatusHandler *service, float scale, QWidget *parent = nullptr);
    ~CertListDialog() override;

private slots:
    void on_pushButton_OK_clicked();
    void on_pushButton_Cancel_clicked();

protected:
    bool event(QEvent *e) override { return frame.event(e) || QWidget::event(e); }

private:
    void report(int status);

    Ui::CertListDialog *ui = nullptr;
    UiStatusHandler *service = nullptr;
    DialogFrame frame{this};
};
