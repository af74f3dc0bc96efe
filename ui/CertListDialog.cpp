#include "CertListDialog.h"
#include "ui_CertListDialog.h"

#include <QCloseEvent>

CertListDialog::CertListDialog(QString list, QObject *service, float scale, QWidget *parent)
    : QWidget(parent), ui(new Ui::CertListDialog), service(service)
{
    ui->setupUi(this);
    Q_UNUSED(list);
    Q_UNUSED(scale);
}
CertListDialog::~CertListDialog() { delete ui; }
void CertListDialog::on_pushButton_OK_clicked() { }
void CertListDialog::on_pushButton_Cancel_clicked() { }
void CertListDialog::closeEvent(QCloseEvent *event) { QWidget::closeEvent(event); }
