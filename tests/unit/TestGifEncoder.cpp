// The build's own GIF writer: Qt's GIF reader must decode every frame back
// to exactly the colours that went in (including frames long enough to fill
// the LZW table and force a clear code), with the loop and delay settings.

#include "GifEncoder.h"

#include <QBuffer>
#include <QImageReader>
#include <QRandomGenerator>
#include <QtTest>

namespace {

// Random indices, or stripes: long runs that grow the dictionary gradually.
QImage indexedFrame(int w, int h, int colours, bool noise, quint32 seed)
{
    QImage img(w, h, QImage::Format_Indexed8);
    img.setColorCount(colours);
    QRandomGenerator rng(seed);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x)
            img.scanLine(y)[x] = uchar(noise ? rng.bounded(colours) : ((x / 3) + y) % colours);
    return img;
}

} // namespace

class TestGifEncoder : public QObject
{
    Q_OBJECT

private slots:
    void testLzwKnownAnswer();
    void testRoundTrip_data();
    void testRoundTrip();
};

// Worked by hand from the GIF89a LZW rules: 4 pixels of colour 0 with code
// size 2 give the codes clear(4) 0 6 0 end(5), 3 bits each, LSB first.
void TestGifEncoder::testLzwKnownAnswer()
{
    QCOMPARE(GifEncoder::lzwEncode(QByteArray(4, '\0'), 2), QByteArray("\x84\x51", 2));
    // Only clear and end for no pixels.
    QCOMPARE(GifEncoder::lzwEncode(QByteArray(), 2), QByteArray("\x2c", 1));
}

void TestGifEncoder::testRoundTrip_data()
{
    QTest::addColumn<int>("width");
    QTest::addColumn<int>("height");
    QTest::addColumn<int>("colours");
    QTest::addColumn<bool>("noise");
    QTest::addColumn<int>("transparent");
    QTest::newRow("2 colours noise") << 37 << 23 << 2 << true << -1;
    QTest::newRow("4 colours stripes") << 64 << 64 << 4 << false << 0;
    QTest::newRow("16 colours noise") << 50 << 40 << 16 << true << 3;
    // 40000 pixels of noise in 256 colours overflow the 4096-entry table many times: the
    // code width changes and clear codes must line up.
    QTest::newRow("256 colours noise") << 200 << 200 << 256 << true << -1;
}

void TestGifEncoder::testRoundTrip()
{
    QFETCH(int, width);
    QFETCH(int, height);
    QFETCH(int, colours);
    QFETCH(bool, noise);
    QFETCH(int, transparent);

    QVector<QRgb> palette;
    for (int i = 0; i < colours; ++i)
        palette << qRgb((i * 37) & 0xff, (i * 91 + 13) & 0xff, (255 - i * 53) & 0xff);
    GifEncoder gif(width, height, palette, transparent);
    gif.setLoopCount(0);
    QVector<QImage> frames;
    for (quint32 f = 0; f < 3; ++f) {
        frames.append(indexedFrame(width, height, colours, noise, 1000 + f));
        QVERIFY(gif.addFrame(frames.last(), 7 + int(f)));
    }
    QByteArray file = gif.finish();
    QVERIFY(file.startsWith("GIF89a"));
    QVERIFY(file.endsWith('\x3B'));

    QBuffer buffer(&file);
    buffer.open(QIODevice::ReadOnly);
    QImageReader reader(&buffer, "gif");
    QVERIFY2(reader.canRead(), qPrintable(reader.errorString()));
    QCOMPARE(reader.size(), QSize(width, height));
    QCOMPARE(reader.imageCount(), 3);
    QCOMPARE(reader.loopCount(), -1); // Qt's word for "forever"
    for (int f = 0; f < 3; ++f) {
        const QImage decoded = reader.read().convertToFormat(QImage::Format_ARGB32);
        QVERIFY2(!decoded.isNull(), qPrintable(reader.errorString()));
        QCOMPARE(reader.nextImageDelay(), (7 + f) * 10);
        const QImage &in = frames.at(f);
        for (int y = 0; y < height; ++y) {
            for (int x = 0; x < width; ++x) {
                const int index = in.pixelIndex(x, y);
                const QRgb got = decoded.pixel(x, y);
                const bool ok = index == transparent ? qAlpha(got) == 0
                                                     : got == (palette.at(index) | 0xff000000u);
                if (!ok)
                    QFAIL(qPrintable(QString::asprintf("frame %d (%d,%d): %08x, index %d", f, x, y,
                                                       got, index)));
            }
        }
    }
}

QTEST_GUILESS_MAIN(TestGifEncoder)
#include "TestGifEncoder.moc"
