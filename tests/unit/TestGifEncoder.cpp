// The build's GIF writer, which draws the waiting animation: Qt's reader must decode every
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
    void testRoundTrip();
};

// The smallest code size; and noise in 256 colours, which overflows the 4096-entry table many
// times (the code width changes and clear codes must line up), then long runs.
void TestGifEncoder::testRoundTrip()
{
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
            for (int i = 0; i < size * size; ++i)
                img.scanLine(i / size)[i % size]
                        = uchar(f < 2 ? rng.bounded(colours) : (i / 3) % colours);
            frames << img;
            QVERIFY(gif.addFrame(img, 7 + f));
        }
        QByteArray file = gif.finish();
        QBuffer buffer(&file);
        QImageReader reader(&buffer, "gif");
        QVERIFY(reader.size() == QSize(size, size) && reader.imageCount() == 3);
        QCOMPARE(reader.loopCount(), -1); // Qt's word for "forever"
        for (int f = 0; f < 3; ++f) {
            const QImage decoded = reader.read().convertToFormat(QImage::Format_ARGB32);
            QCOMPARE(reader.nextImageDelay(), (7 + f) * 10);
            int wrong = decoded.isNull() ? 1 : 0;
            for (int i = 0; i < size * size && !wrong; ++i) {
                const int index = frames.at(f).pixelIndex(i % size, i / size);
                const QRgb got = decoded.pixel(i % size, i / size);
                wrong = index == transparent ? qAlpha(got)
                                             : got != (palette.at(index) | 0xff000000u);
            }
            QCOMPARE(wrong, 0);
        }
    }
}

QTEST_GUILESS_MAIN(TestGifEncoder)
#include "TestGifEncoder.moc"
