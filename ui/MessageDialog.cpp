#include "MessageDialog.h"
#include "ui_MessageDialog.h"

#include "DialogGeometry.h"
#include "DialogAccessibility.h"
#include "DialogKeys.h"
#include "service/UiStatusHandler.h"

#include <QApplication>
#include <QCloseEvent>
#include <QDebug>
#include <QKeyEvent>
#include <QDesktopWidget>
#include <QIcon>
#include <QMetaObject>

namespace {
// The one type code that asks a question (after a wrong PIN): Retry and Cancel.
constexpr unsigned long RetryCancelType = 5;
} // namespace

/**
 * Builds the box. Title and message are either keys of the message table,
 * shown translated, or ready texts, shown unchanged. The box is sized to its
 * contents times the display scale and cannot be resized.
 */
MessageDialog::MessageDialog(QString title, QString message, unsigned long type, QObject *service,
                             float scale, QWidget *parent)
    : QWidget(parent)
    , ui(new Ui::MessageDialog)
    , type(type)
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
    } else {
        ui->pushButton_Retry->hide();
        ui->pushButton_Cancel->hide();
    }

    DialogKeys::addAccelerators({ui->pushButton_OK, ui->pushButton_Retry, ui->pushButton_Cancel});

    // One icon object for every dialog: a new QIcon each time left new
    // scaled copies in QPixmapCache (10 MB of RSS before it evicts).
    static const QIcon logo(QStringLiteral(":/images/logo.ico"));
    setWindowIcon(logo);
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
    answered = true;
    auto *handler = dynamic_cast<UiStatusHandler *>(service);
    if (!handler) {
        qWarning() << "MessageDialog: no status handler, status" << status << "dropped";
        return;
    }
    handler->SetMsgStatus(status);
}

void MessageDialog::on_pushButton_OK_clicked() { report(1); }

// Kept on purpose: Retry reports the same 1 as OK; a retry box has no OK button, so 1 means go on.
void MessageDialog::on_pushButton_Retry_clicked() { report(1); }

void MessageDialog::on_pushButton_Cancel_clicked() { report(0); }

/**
 * A close through the window manager answers as the dismissing button would
 * (Cancel in a Retry/Cancel box, OK where OK is alone), so the socket thread
 * never polls for a window that is gone. The coordinator's own hide and
 * delete send no close event. The answer is posted rather than given here:
 * the coordinator deletes the box inside the setter, which must not happen
 * in the middle of this event; a posted call to a deleted box is dropped.
 */
void MessageDialog::closeEvent(QCloseEvent *event)
{
    event->accept();
    if (answered)
        return;
    answered = true;
    const int status = type == RetryCancelType ? 0 : 1;
    QMetaObject::invokeMethod(
            this, [this, status] { report(status); }, Qt::QueuedConnection);
}

/**
 * Deliberate departure: Escape answers as the window manager's close does;
 * Return presses the focused button, or the default one.
 */
void MessageDialog::keyPressEvent(QKeyEvent *event)
{
    if (!DialogKeys::handleKey(this, event,
                               type == RetryCancelType
                                       ? static_cast<QAbstractButton *>(ui->pushButton_Retry)
                                       : ui->pushButton_OK))
        QWidget::keyPressEvent(event);
}

void MessageDialog::changeEvent(QEvent *event)
{
    if (event->type() == QEvent::ActivationChange && isActiveWindow())
        DialogKeys::showFocusRing(this);
    QWidget::changeEvent(event);
}
