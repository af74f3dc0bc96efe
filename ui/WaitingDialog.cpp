#include "WaitingDialog.h"
#include "ui_WaitingDialog.h"

#include <QMovie>
#include <QTimer>

WaitingDialog::WaitingDialog(QString info, unsigned long type, int timeout, QString picturePath,
                             float scale, QWidget *parent)
    : QWidget(parent), ui(new Ui::WaitingDialog), scale(scale), timeout(timeout)
{
    ui->setupUi(this);
    Q_UNUSED(info);
    Q_UNUSED(type);
    Q_UNUSED(picturePath);
}
WaitingDialog::~WaitingDialog() { delete ui; }
void WaitingDialog::refreshtimeout() { }
