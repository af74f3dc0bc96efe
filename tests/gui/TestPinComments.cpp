// The comment line of the PIN dialog stays readable: every text keeps a
// contrast of at least 4.5:1 with the window on a light and a dark palette,
// and good news is not shown in the error colour.
#include "FakeUiStatus.h"
#include "ui/PINDialog.h"

#include <QApplication>
#include <QLabel>
#include <QLineEdit>
#include <QtTest>

#include <cmath>

namespace {
double luminance(const QColor &c)
{
    auto ch = [](double v) {
        return v <= 0.03928 ? v / 12.92 : std::pow((v + 0.055) / 1.055, 2.4);
    };
    return 0.2126 * ch(c.redF()) + 0.7152 * ch(c.greenF()) + 0.0722 * ch(c.blueF());
}

double contrast(const QColor &a, const QColor &b)
{
    const double la = luminance(a), lb = luminance(b);
    return (qMax(la, lb) + 0.05) / (qMin(la, lb) + 0.05);
}

QPalette darkPalette()
{
    QPalette p;
    p.setColor(QPalette::Window, QColor(0x35, 0x35, 0x35));
    p.setColor(QPalette::WindowText, QColor(0xEE, 0xEE, 0xEE));
    p.setColor(QPalette::Base, QColor(0x2A, 0x2A, 0x2A));
    p.setColor(QPalette::Text, QColor(0xEE, 0xEE, 0xEE));
    return p;
}
} // namespace

class TestPinComments : public QObject
{
    Q_OBJECT

private slots:
    void testReadableAndToned_data();
    void testReadableAndToned();
};

void TestPinComments::testReadableAndToned_data()
{
    QTest::addColumn<bool>("dark");
    QTest::addColumn<QString>("pin");
    QTest::addColumn<bool>("error");
    for (bool dark : {false, true}) {
        const char *p = dark ? "dark" : "light";
        QTest::addRow("%s, strong", p) << dark << "Ab1xY9z!" << false;
        QTest::addRow("%s, normal", p) << dark << "abcxyz17" << false;
        QTest::addRow("%s, weak", p) << dark << "qazplm" << true;
        QTest::addRow("%s, forbidden", p) << dark << "aaaaaa" << true;
        QTest::addRow("%s, too short", p) << dark << "ab" << true;
    }
}

void TestPinComments::testReadableAndToned()
{
    QFETCH(bool, dark);
    QFETCH(QString, pin);
    QFETCH(bool, error);
    const QPalette saved = QApplication::palette();
    if (dark)
        QApplication::setPalette(darkPalette());
    FakeUiStatus status;
    {
        PINDialog dlg(PINDialog::SimpleKeyBoard, false, 2, &status, 1.0f);
        dlg.show();
        QVERIFY(QTest::qWaitForWindowExposed(&dlg));
        dlg.findChild<QLineEdit *>("lineEdit_newPin")->setText(pin);
        auto *comments = dlg.findChild<QLabel *>("label_comments");
        QVERIFY(!comments->text().isEmpty());
        // The colour the label is drawn with, against the window behind it.
        const QColor text = comments->palette().color(QPalette::WindowText);
        const QColor window = dlg.palette().color(QPalette::Window);
        QVERIFY2(contrast(text, window) >= 4.5,
                 qPrintable(QStringLiteral("%1 on %2: %3:1")
                                    .arg(text.name(), window.name())
                                    .arg(contrast(text, window), 0, 'f', 2)));
        const bool red = text.hslHue() == 0 && text.hslSaturation() > 128;
        QCOMPARE(red, error);
        // And it is what gets drawn: the label's pixels carry that colour.
        const QImage drawn = comments->grab().toImage();
        bool found = false;
        for (int y = 0; y < drawn.height() && !found; ++y) {
            for (int x = 0; x < drawn.width() && !found; ++x)
                found = drawn.pixelColor(x, y) == text;
        }
        QVERIFY(found);
        if (!error)
            QCOMPARE(text, dlg.palette().color(QPalette::WindowText));
    }
    QApplication::setPalette(saved);
}

QTEST_MAIN(TestPinComments)
#include "TestPinComments.moc"
