#include "WaitingDialog.h"
#include "ui_WaitingDialog.h"

#include "DialogAccessibility.h"

#include <QDebug>
#include <QIcon>
#include <QImageReader>
#include <QMovie>
#include <QStringList>
#include <QTimer>

namespace {
// Keys of the "|"-separated information text.
enum InfoKey { KeyPicture = 0, KeyTimeout1 = 1, KeyTimeout2 = 2, KeySignInfo = 3, KeyTimeout4 = 4 };

// One second between countdown ticks. A precise timer re-arms from its due
// time, not from the late delivery, so a two-minute count does not drift.
constexpr int TickMilliseconds = 1000;
} // namespace

/**
 * Builds the waiting window. The information text carries the animation name
 * and the time limits; the type code picks the title, the message and which
 * limit becomes the countdown. The time-out argument is not used: the
 * countdown comes from the information text alone.
 */
WaitingDialog::WaitingDialog(QString info, unsigned long type, int timeout, QString picturePath,
                             float scale, QWidget *parent)
    : QWidget(parent)
    , ui(new Ui::WaitingDialog)
    , scale(scale)
{
    Q_UNUSED(timeout); // kept on purpose: accepted from the coordinator and never used
    ui->setupUi(this);
    DialogAccessibility::install();
    qDebug() << "WaitingDialog() called";

    countdown = 0;
    timer = nullptr;
    movie = nullptr;
    int timeout1 = 0;
    int timeout2 = 0;
    int timeout4 = 0;
    QString pPath;
    QString signinfo;

    if (!info.isEmpty()) {
        const QStringList items = info.split("|", Qt::KeepEmptyParts, Qt::CaseSensitive);
        for (const QString &item : items) {
            const QStringList pair = item.split("=", Qt::KeepEmptyParts, Qt::CaseSensitive);
            if (pair.size() != 2)
                continue;
            // A key that is not a number reads as 0, the animation name; kept on purpose.
            switch (pair.at(0).toInt(nullptr, 10)) {
            case KeyPicture:
                pPath = pair.at(1);
                break;
            case KeyTimeout1:
                timeout1 = pair.at(1).toInt(nullptr, 10);
                break;
            case KeyTimeout2:
                timeout2 = pair.at(1).toInt(nullptr, 10);
                break;
            case KeySignInfo:
                signinfo = pair.at(1);
                break;
            case KeyTimeout4:
                timeout4 = pair.at(1).toInt(nullptr, 10);
                break;
            default:
                break;
            }
        }
    }

    qDebug() << "WaitingDialog:pPath=" << pPath << ",dialogtype=" << type
             << ",timeout1=" << timeout1 << ",timeout2=" << timeout2 << ",timeout4=" << timeout4
             << ", signinfo=" << signinfo;

    // Joined as they stand: the configured directory ends with its separator.
    const QString picture = pPath.isEmpty() ? QString() : picturePath + pPath;

    QString title;
    QString message;
    switch (type) {
    case 0:
        title = tr("Generate Key Pair");
        message = tr("USBKey is generating key pair, please waiting...");
        countdown = timeout2;
        break;
    case 1:
        title = tr("Transmit Signature Data");
        message = tr("USBKey is Transmitting Signature Data, please waiting...");
        countdown = timeout2;
        break;
    case 2:
        title = tr("Verify user pin");
        message = tr("Please press OK button on USBKey");
        countdown = timeout1;
        break;
    case 3:
        title = tr("Change user pin");
        message = tr("Please press OK button on USBKey");
        countdown = timeout1;
        break;
    case 4:
        title = tr("Unlock pin");
        message = tr("Please press OK button on USBKey");
        countdown = timeout1;
        break;
    case 5:
        // The transaction text is only logged; the device shows it on its own screen.
        title = tr("Trade Confirm");
        message = tr("You will do trade signature! Please check the data on the usbkey screen");
        countdown = timeout2;
        break;
    case 6:
        // Kept on purpose: the whole sentence sits in the title bar, the body has the button
        // prompt.
        title = tr("You will restore UKey to default status");
        message = tr("Please press OK button on USBKey");
        countdown = timeout4;
        break;
    case 7:
        // Kept on purpose: the same as type 0.
        title = tr("Generate Key Pair");
        message = tr("USBKey is generating key pair, please waiting...");
        countdown = timeout2;
        break;
    case 8:
        title = tr("Verify admin pin");
        message = tr("Please press OK button on USBKey");
        countdown = timeout1;
        break;
    case 9:
        title = tr("Change admin pin");
        message = tr("Please press OK button on USBKey");
        countdown = timeout1;
        break;
    case 10:
        title = tr("You will set the user pin");
        message = tr("Please press OK button on USBKey");
        countdown = timeout1;
        break;
    default:
        title = tr("Unknown Type");
        message = tr("unknown request %1").arg(type);
        break;
    }

    setWindowTitle(title);
    ui->label_info->setText(message);

    if (countdown > 0) {
        timer = new QTimer();
        timer->setTimerType(Qt::PreciseTimer);
        timer->setInterval(TickMilliseconds);
        connect(timer, &QTimer::timeout, this, &WaitingDialog::refreshtimeout);
        timer->start();
        refreshtimeout();
    }

    if (!picture.isEmpty()) {
        qDebug() << picture;
        // A path that names no readable animation leaves the picture area empty, without a message.
        QImageReader reader(picture);
        const QSize imageSize = reader.size();
        qDebug() << "QImageReader:size=" << imageSize;
        movie = new QMovie(picture, QByteArray());
        // An unreadable file reports an invalid size; sizing the label by it would only log a
        // warning.
        if (imageSize.isValid()) {
            ui->label_gif->resize(imageSize);
            ui->label_gif->setMinimumSize(imageSize);
        }
        ui->label_gif->setMovie(movie);
        qDebug() << "label_gif:size=" << ui->label_gif->size();
        movie->start();
    }

    // One icon object for every dialog: a new QIcon each time left new
    // scaled copies in QPixmapCache (10 MB of RSS before it evicts).
    static const QIcon logo(QStringLiteral(":/images/logo.ico"));
    setWindowIcon(logo);
    setWindowFlags(Qt::WindowMinimizeButtonHint | Qt::WindowStaysOnTopHint);
    setAttribute(Qt::WA_ShowModal);

    qDebug() << "dialog base size" << size();
    frame.fit(scale);
    qDebug() << "dialog adjust size" << size();
}

WaitingDialog::~WaitingDialog()
{
    if (timer) {
        timer->stop();
        delete timer;
        timer = nullptr;
    }
    delete movie;
    delete ui;
}

/**
 * One countdown tick: shows the seconds left, refits the window, and stops
 * the ticker once 0 has been shown. The window stays up showing 0 until its
 * owner closes it.
 */
void WaitingDialog::refreshtimeout()
{
    ui->label_info->setText(
            tr("Please press OK button on USBKey in <font color=\"red\">%1</font> second(s)")
                    .arg(countdown));
    frame.fit(scale);
    qDebug() << countdown << "seconds";

    if (countdown-- <= 0 && timer) {
        timer->stop();
        delete timer;
        timer = nullptr;
    }
}
