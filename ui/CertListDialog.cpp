#include "CertListDialog.h"
#include "ui_CertListDialog.h"

#include "DialogGeometry.h"
#include "DialogAccessibility.h"
#include "DialogKeys.h"
#include "service/UiStatusHandler.h"

#include <QApplication>
#include <QCloseEvent>
#include <QDebug>
#include <QKeyEvent>
#include <QDesktopWidget>
#include <QMetaObject>
#include <QStringList>

/**
 * Builds the chooser from a newline-separated list. Only the ends of the
 * whole text are trimmed: a blank line inside stays an (empty) entry, so
 * the rows keep the numbering the client sent.
 */
CertListDialog::CertListDialog(QString list, QObject *service, float scale, QWidget *parent)
    : QWidget(parent)
    , ui(new Ui::CertListDialog)
{
    ui->setupUi(this);
    DialogAccessibility::install();
    this->service = service;

    const QStringList entries = list.trimmed().split("\n", Qt::KeepEmptyParts, Qt::CaseSensitive);
    qDebug() << "CertListDialog:" << entries;
    ui->comboBox_certlist->addItems(entries);

    DialogKeys::addAccelerators({ui->pushButton_OK, ui->pushButton_Cancel});

    // Kept on purpose: unlike the other dialogs this one sets no window icon.
    setWindowFlags(Qt::WindowMinimizeButtonHint | Qt::WindowStaysOnTopHint);
    setAttribute(Qt::WA_ShowModal);

    adjustSize();
    // Deliberate departure: only the part of the scale the fonts did not
    // apply, and never larger than the screen.
    const QSize scaled = DialogGeometry::boundedToScreen(
            this, size() * DialogGeometry::remainingScale(this, scale));
    resize(scaled);
    setMinimumSize(scaled);
    setMaximumSize(scaled);

    const QDesktopWidget *desktop = QApplication::desktop();
    move((desktop->width() - width()) / 2, (desktop->height() - height()) / 2);
}

CertListDialog::~CertListDialog() { delete ui; }

/**
 * Hands the choice to the coordinator. The coordinator hides and deletes
 * this window inside the call, so nothing here may touch a member afterwards.
 */
void CertListDialog::report(int status, int index)
{
    answered = true;
    auto *handler = dynamic_cast<UiStatusHandler *>(service);
    if (!handler) {
        qWarning() << "CertListDialog: no status handler, status" << status << "index" << index
                   << "dropped";
        return;
    }
    handler->SetListSelectStatus(status, index);
}

void CertListDialog::on_pushButton_OK_clicked()
{
    report(1, ui->comboBox_certlist->currentIndex());
}

// Cancel reports the row under the cursor too; the status alone tells the two apart.
void CertListDialog::on_pushButton_Cancel_clicked()
{
    report(0, ui->comboBox_certlist->currentIndex());
}

/**
 * A close through the window manager answers as Cancel would, so the socket
 * thread never waits for a window that is gone. The coordinator's own hide
 * and delete send no close event. The answer is posted rather than given
 * here: the coordinator deletes the window inside the setter, which must not
 * happen in the middle of this event; a posted call to a deleted window is
 * dropped.
 */
void CertListDialog::closeEvent(QCloseEvent *event)
{
    event->accept();
    if (answered)
        return;
    answered = true;
    const int index = ui->comboBox_certlist->currentIndex();
    QMetaObject::invokeMethod(
            this, [this, index] { report(0, index); }, Qt::QueuedConnection);
}

/**
 * Deliberate departure: Escape answers as the window manager's close does;
 * Return presses the focused button, or the default one.
 */
void CertListDialog::keyPressEvent(QKeyEvent *event)
{
    if (!DialogKeys::handleKey(this, event, ui->pushButton_OK))
        QWidget::keyPressEvent(event);
}

void CertListDialog::changeEvent(QEvent *event)
{
    if (event->type() == QEvent::ActivationChange && isActiveWindow())
        DialogKeys::showFocusRing(this);
    QWidget::changeEvent(event);
}
