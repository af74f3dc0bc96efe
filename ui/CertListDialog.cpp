#include "CertListDialog.h"
#include "ui_CertListDialog.h"

#include "DialogAccessibility.h"
#include "service/UiStatusHandler.h"

#include <QDebug>
#include <QStringList>

/**
 * Builds the chooser from a newline-separated list. Only the ends of the
 * whole text are trimmed: a blank line inside stays an (empty) entry, so
 * the rows keep the numbering the client sent.
 */
CertListDialog::CertListDialog(QString list, UiStatusHandler *service, float scale, QWidget *parent)
    : QWidget(parent)
    , ui(new Ui::CertListDialog)
{
    ui->setupUi(this);
    DialogAccessibility::install();
    this->service = service;

    const QStringList entries = list.trimmed().split("\n", Qt::KeepEmptyParts, Qt::CaseSensitive);
    qDebug() << "CertListDialog:" << entries;
    ui->comboBox_certlist->addItems(entries);

    frame.setButtons(ui->pushButton_OK, ui->pushButton_Cancel);

    // Kept on purpose: unlike the other dialogs this one sets no window icon.
    setWindowFlags(Qt::WindowMinimizeButtonHint | Qt::WindowStaysOnTopHint);
    setAttribute(Qt::WA_ShowModal);

    frame.fit(scale);
}

CertListDialog::~CertListDialog() { delete ui; }

/**
 * Hands the choice to the coordinator. The coordinator hides and deletes
 * this window inside the call, so nothing here may touch a member afterwards.
 */
void CertListDialog::report(int status)
{
    frame.answered();
    service->SetListSelectStatus(status, ui->comboBox_certlist->currentIndex());
}

void CertListDialog::on_pushButton_OK_clicked() { report(1); }

// Cancel reports the row under the cursor too; the status alone tells the two apart.
void CertListDialog::on_pushButton_Cancel_clicked() { report(0); }
