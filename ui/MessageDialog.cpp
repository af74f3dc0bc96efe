#include "MessageDialog.h"
#include "ui_MessageDialog.h"

#include "DialogAccessibility.h"
#include "service/UiStatusHandler.h"

#include <QDebug>
#include <QIcon>

namespace {
// The one type code that asks a question (after a wrong PIN): Retry and Cancel.
constexpr unsigned long RetryCancelType = 5;
} // namespace

/**
 * Builds the box. Title and message are either keys of the message table,
 * shown translated, or ready texts, shown unchanged. The box is sized to its
 * contents times the display scale and cannot be resized.
 */
MessageDialog::MessageDialog(QString title, QString message, unsigned long type,
                             UiStatusHandler *service, float scale, QWidget *parent)
    : QWidget(parent)
    , ui(new Ui::MessageDialog)
{
    ui->setupUi(this);
    DialogAccessibility::install();
    makeStrMap();

    qDebug() << "MessageDialog: key=" << message << ", value=" << strMap.value(message, message);

    setWindowTitle(strMap.value(title, title));
    ui->label_message->setText(strMap.value(message, message));

    this->service = service;

    if (type == RetryCancelType) {
        ui->pushButton_OK->hide();
        frame.setButtons(ui->pushButton_Retry, ui->pushButton_Cancel);
    } else {
        ui->pushButton_Retry->hide();
        ui->pushButton_Cancel->hide();
        frame.setButtons(ui->pushButton_OK, ui->pushButton_OK);
    }

    // One icon object for every dialog: a new QIcon each time left new
    // scaled copies in QPixmapCache (10 MB of RSS before it evicts).
    static const QIcon logo(QStringLiteral(":/images/logo.ico"));
    setWindowIcon(logo);
    setWindowFlags(Qt::WindowMinimizeButtonHint | Qt::WindowStaysOnTopHint);
    setAttribute(Qt::WA_ShowModal);

    frame.fit(scale);
}

MessageDialog::~MessageDialog() { delete ui; }

// Each key translates to itself as the source text: the translation files carry the wording.
void MessageDialog::makeStrMap()
{
    strMap.insert("Title_Warning", tr("Title_Warning"));
    strMap.insert("PIN_Locked", tr("PIN_Locked"));
    strMap.insert("SPACE_FULL_Hint", tr("SPACE_FULL_Hint"));
}

/**
 * Hands the answer to the coordinator. The coordinator hides and deletes
 * this box inside the call, so nothing here may touch a member afterwards.
 */
void MessageDialog::report(int status)
{
    frame.answered();
    service->SetMsgStatus(status);
}

void MessageDialog::on_pushButton_OK_clicked() { report(1); }

// Kept on purpose: Retry reports the same 1 as OK; a retry box has no OK button, so 1 means go on.
void MessageDialog::on_pushButton_Retry_clicked() { report(1); }

void MessageDialog::on_pushButton_Cancel_clicked() { report(0); }
