#include "MessageDialog.h"
#include "ui_MessageDialog.h"

#include <QCloseEvent>

MessageDialog::MessageDialog(QString title, QString message, unsigned long type, QObject *service,
                             float scale, QWidget *parent)
    : QWidget(parent), ui(new Ui::MessageDialog), service(service), type(type)
{
    ui->setupUi(this);
    Q_UNUSED(title);
    Q_UNUSED(message);
    Q_UNUSED(scale);
}
MessageDialog::~MessageDialog() { delete ui; }
void MessageDialog::on_pushButton_OK_clicked() { }
void MessageDialog::on_pushButton_Retry_clicked() { }
void MessageDialog::on_pushButton_Cancel_clicked() { }
void MessageDialog::closeEvent(QCloseEvent *event) { QWidget::closeEvent(event); }
void MessageDialog::makeStrMap() { }
