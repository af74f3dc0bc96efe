// The build's own GIF writer, which draws the waiting animation: Qt's reader must decode every
// frame back to exactly the colours that went in, with the loop and delay settings.
#include "GifEncoder.h"

#include <QBuffer>
#include <QImageReader>
#include <QRandomGenerator>
#include <QtTest>

class TestGifEncoder : public QObject
{
    Q_OBJECT
private slots:
    void testLzwKnownAnswer();
    void testRoundTrip();
};

// Worked by hand: 4 pixels of colour 0 with code size 2 give clear(4) 0 6 0 end(5), 3 bits
// each, LSB first; no pixels give only clear and end.
void TestGifEncoder::testLzwKnownAnswer()
{
    QCOMPARE(GifEncoder::lzwEncode(QByteArray(4, '\0'), 2), QByteArray("\x84\x51", 2));
    QCOMPARE(GifEncoder::lzwEncode(QByteArray(), 2), QByteArray("\x2c", 1));
}

void TestGifEncoder::testRoundTrip()
{
    // The smallest code size; and 40000 pixels of noise in 256 colours, which overflow the
    // 4096-entry table many times: the code width changes and clear codes must line up.
    for (const auto &[size, colours, transparent] :
         {std::make_tuple(37, 2, -1), std::make_tuple(200, 256, 3)}) {
        QVector<QRgb> palette;
        for (int i = 0; i < colours; ++i)
            palette << qRgb((i * 37) & 0xff, (i * 91 + 13) & 0xff, (255 - i * 53) & 0xff);
        GifEncoder gif(size, size, palette, transparent);
        gif.setLoopCount(0);
        QVector<QImage> frames;
        QRandomGenerator rng(1000);
        for (int f = 0; f < 3; ++f) {
            QImage img(size, size, QImage::Format_Indexed8);
            img.setColorCount(colours);
            for (int y = 0; y < size; ++y)
                for (int x = 0; x < size; ++x) // noise, then long runs that grow the table slowly
                    img.scanLine(y)[x]
                            = uchar(f < 2 ? rng.bounded(colours) : (x / 3 + y) % colours);
            frames << img;
            QVERIFY(gif.addFrame(img, 7 + f));
        }
        QByteArray file = gif.finish();
        QBuffer buffer(&file);
        QImageReader reader(&buffer, "gif");
        QCOMPARE(reader.size(), QSize(size, size));
        QCOMPARE(reader.imageCount(), 3);
        QCOMPARE(reader.loopCount(), -1); // Qt's word for "forever"
        for (int f = 0; f < 3; ++f) {
            const QImage decoded = reader.read().convertToFormat(QImage::Format_ARGB32);
            QVERIFY2(!decoded.isNull(), qPrintable(reader.errorString()));
            QCOMPARE(reader.nextImageDelay(), (7 + f) * 10);
            for (int y = 0; y < size; ++y) {
                for (int x = 0; x < size; ++x) {
                    const int index = frames.at(f).pixelIndex(x, y);
                    const QRgb got = decoded.pixel(x, y);
                    if (index == transparent ? qAlpha(got) != 0
                                             : got != (palette.at(index) | 0xff000000u))
                        QFAIL(qPrintable(
                                QString::asprintf("frame %d (%d,%d): %08x", f, x, y, got)));
                }
            }
        }
    }
}

QTEST_GUILESS_MAIN(TestGifEncoder)
#include "TestGifEncoder.moc"
