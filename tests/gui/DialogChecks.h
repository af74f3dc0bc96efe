#pragma once

#include <QApplication>
#include <QDesktopWidget>
#include <QIcon>
#include <QtTest>

// A dialog built at `scale` is the one built at 1.0 grown once by the part of the scale the
// fonts (at the screen's dpi) did not already apply, fixed in size, centred on the screen,
// modal and kept on top; showing it changes none of that.
inline void verifyScaledWindow(QWidget &base, QWidget &scaled, qreal scale, bool logoIcon)
{
    const qreal rest = qMax(1.0, scale / (scaled.logicalDpiX() / 96.0));
    const QSize expected(qRound(base.width() * rest), qRound(base.height() * rest));
    QCOMPARE(scaled.size(), expected);
    QCOMPARE(scaled.minimumSize(), expected);
    QCOMPARE(scaled.maximumSize(), expected);
    const QRect screen = QApplication::desktop()->rect();
    QCOMPARE(scaled.pos(), QPoint((screen.width() - expected.width()) / 2,
                                  (screen.height() - expected.height()) / 2));
    QVERIFY(scaled.testAttribute(Qt::WA_ShowModal));
    QVERIFY(scaled.windowFlags().testFlag(Qt::WindowStaysOnTopHint));
    if (logoIcon)
        QCOMPARE(scaled.windowIcon().pixmap(4, 4).toImage(),
                 QIcon(":/images/logo.ico").pixmap(4, 4).toImage());
    scaled.show();
    QVERIFY(QTest::qWaitForWindowExposed(&scaled));
    QCoreApplication::processEvents();
    QCOMPARE(scaled.size(), expected);
}

// Runs what is already posted (deferred answers, deletions): "nothing happens" is then final.
inline void drainEvents()
{
    QCoreApplication::sendPostedEvents();
    QCoreApplication::processEvents();
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
}
