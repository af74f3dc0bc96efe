// zrui-artwork: draws the program's own pictures at build time, so no
// third-party art ships: the window icon (a token with a key, several sizes
// in one ICO) and the waiting animation (a looping spinner GIF).
//
//   zrui-artwork <output dir>   writes logo.ico and wait.gif

#include "GifEncoder.h"

#include <QBuffer>
#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QImage>
#include <QImageWriter>
#include <QLinearGradient>
#include <QPainter>
#include <QPainterPath>
#include <QtEndian>
#include <QtMath>

#include <cstdio>

namespace {

const int kIconSizes[] = {16, 24, 32, 48, 64, 128};
const int kSpinnerSize = 64;
const int kSpinnerFrames = 12;
const int kSpinnerDelay = 8; // hundredths of a second per frame
// The animation is blended against the usual light window background;
// index 0 stays transparent for the pixels no spoke touches.
const QRgb kSpinnerBackground = qRgb(0xef, 0xef, 0xef);
const QRgb kSpinnerColour = qRgb(0x1f, 0x6f, 0xd6);

// The icon in a 64 x 64 design space: a token body with a USB plug and a
// golden key across it, tilted like a key in a hand.
QImage drawIcon(int size)
{
    QImage image(size, size, QImage::Format_ARGB32_Premultiplied);
    image.fill(Qt::transparent);
    QPainter p(&image);
    p.setRenderHint(QPainter::Antialiasing);
    p.scale(size / 64.0, size / 64.0);
    p.translate(32, 32);
    p.rotate(-35);
    p.translate(-32, -32);

    QLinearGradient body(0, 18, 0, 46);
    body.setColorAt(0, QColor(0x3b, 0x7f, 0xe6));
    body.setColorAt(1, QColor(0x15, 0x45, 0x96));
    p.setPen(QPen(QColor(0x0d, 0x2f, 0x6b), 1.5));
    p.setBrush(body);
    p.drawRoundedRect(QRectF(4, 19, 42, 26), 6, 6);

    p.setPen(QPen(QColor(0x6b, 0x71, 0x7a), 1.2));
    p.setBrush(QColor(0xd4, 0xd8, 0xdd));
    p.drawRect(QRectF(46, 24, 13, 16));
    p.setPen(Qt::NoPen);
    p.setBrush(QColor(0x4a, 0x4f, 0x57));
    p.drawRect(QRectF(50, 27, 5, 3.5));
    p.drawRect(QRectF(50, 33.5, 5, 3.5));

    const QColor gold(0xf5, 0xc2, 0x2b);
    p.setBrush(Qt::NoBrush);
    p.setPen(QPen(gold, 3.5, Qt::SolidLine, Qt::RoundCap, Qt::RoundJoin));
    p.drawEllipse(QPointF(16, 32), 6, 6);
    QPainterPath key;
    key.moveTo(22, 32);
    key.lineTo(39, 32);
    key.moveTo(34, 32);
    key.lineTo(34, 37);
    key.moveTo(39, 32);
    key.lineTo(39, 38);
    p.drawPath(key);
    p.end();
    return image.convertToFormat(QImage::Format_ARGB32);
}

// Qt's ICO writer stores one picture per file; the icon directory of each
// is re-packed into one file that holds every size.
QByteArray buildIco()
{
    QByteArray directory;
    QByteArray images;
    int count = 0;
    for (int size : kIconSizes) {
        QByteArray single;
        QBuffer buffer(&single);
        buffer.open(QIODevice::WriteOnly);
        QImageWriter writer(&buffer, "ico");
        if (!writer.write(drawIcon(size))) {
            std::fprintf(stderr, "zrui-artwork: ico writer: %s\n",
                         qPrintable(writer.errorString()));
            return QByteArray();
        }
        const uchar *d = reinterpret_cast<const uchar *>(single.constData());
        if (single.size() < 22 || qFromLittleEndian<quint16>(d + 4) != 1) {
            std::fprintf(stderr, "zrui-artwork: unexpected ico layout for size %d\n", size);
            return QByteArray();
        }
        const quint32 length = qFromLittleEndian<quint32>(d + 6 + 8);
        const quint32 offset = qFromLittleEndian<quint32>(d + 6 + 12);
        if (quint64(offset) + length > quint64(single.size()))
            return QByteArray();
        directory.append(single.mid(6, 12));
        char pos[4];
        qToLittleEndian<quint32>(quint32(images.size()), pos); // made absolute below
        directory.append(pos, 4);
        images.append(single.mid(int(offset), int(length)));
        ++count;
    }
    QByteArray out(6, '\0');
    qToLittleEndian<quint16>(1, out.data() + 2);
    qToLittleEndian<quint16>(quint16(count), out.data() + 4);
    const quint32 base = quint32(6 + directory.size());
    for (int i = 0; i < count; ++i) {
        uchar *entry = reinterpret_cast<uchar *>(directory.data()) + i * 16;
        qToLittleEndian<quint32>(qFromLittleEndian<quint32>(entry + 12) + base, entry + 12);
    }
    out.append(directory);
    out.append(images);
    return out;
}

// Twelve dots on a circle; frame f has its brightest dot at position f and
// a fading tail behind it, so the animation turns clockwise.
QImage drawSpinnerFrame(int frame)
{
    QImage image(kSpinnerSize, kSpinnerSize, QImage::Format_ARGB32);
    image.fill(Qt::transparent);
    QPainter p(&image);
    p.setRenderHint(QPainter::Antialiasing);
    p.setPen(Qt::NoPen);
    const QPointF centre(kSpinnerSize / 2.0, kSpinnerSize / 2.0);
    for (int i = 0; i < kSpinnerFrames; ++i) {
        const int behind = (frame - i + kSpinnerFrames) % kSpinnerFrames;
        const double strength = 1.0 - 0.8 * behind / (kSpinnerFrames - 1);
        QColor c(kSpinnerColour);
        c.setAlphaF(strength);
        p.setBrush(c);
        const double angle = 2 * M_PI * i / kSpinnerFrames - M_PI / 2;
        const QPointF at = centre + QPointF(std::cos(angle), std::sin(angle)) * 23.0;
        const double radius = 3.0 + 2.5 * strength;
        p.drawEllipse(at, radius, radius);
    }
    p.end();
    return image;
}

QVector<QRgb> spinnerPalette()
{
    // Index 0: transparent; 1..255: background blended towards the colour.
    QVector<QRgb> palette;
    palette.append(kSpinnerBackground);
    for (int i = 1; i < 256; ++i) {
        const double t = (i - 1) / 254.0;
        auto mix = [t](int a, int b) { return int(std::lround(a + (b - a) * t)); };
        palette.append(qRgb(mix(qRed(kSpinnerBackground), qRed(kSpinnerColour)),
                            mix(qGreen(kSpinnerBackground), qGreen(kSpinnerColour)),
                            mix(qBlue(kSpinnerBackground), qBlue(kSpinnerColour))));
    }
    return palette;
}

QByteArray buildGif()
{
    const QVector<QRgb> palette = spinnerPalette();
    GifEncoder gif(kSpinnerSize, kSpinnerSize, palette, 0);
    gif.setLoopCount(0);
    for (int f = 0; f < kSpinnerFrames; ++f) {
        const QImage argb = drawSpinnerFrame(f);
        QImage indexed(kSpinnerSize, kSpinnerSize, QImage::Format_Indexed8);
        indexed.setColorTable(palette);
        for (int y = 0; y < kSpinnerSize; ++y) {
            const QRgb *src = reinterpret_cast<const QRgb *>(argb.constScanLine(y));
            uchar *dst = indexed.scanLine(y);
            for (int x = 0; x < kSpinnerSize; ++x) {
                // Only one colour is drawn, so its alpha says everything:
                // how far the pixel sits between background and colour.
                const int a = qAlpha(src[x]);
                dst[x] = a < 24 ? 0 : uchar(1 + std::lround((a / 255.0) * 254));
            }
        }
        if (!gif.addFrame(indexed, kSpinnerDelay))
            return QByteArray();
    }
    return gif.finish();
}

bool writeFile(const QString &path, const QByteArray &data)
{
    QFile f(path);
    if (data.isEmpty() || !f.open(QIODevice::WriteOnly | QIODevice::Truncate)
        || f.write(data) != data.size()) {
        std::fprintf(stderr, "zrui-artwork: cannot write %s\n", qPrintable(path));
        return false;
    }
    return true;
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    if (argc != 2) {
        std::fprintf(stderr, "usage: zrui-artwork <output dir>\n");
        return 2;
    }
    const QDir dir(QString::fromLocal8Bit(argv[1]));
    if (!dir.exists() && !QDir().mkpath(dir.path()))
        return 1;
    if (!writeFile(dir.filePath("logo.ico"), buildIco()))
        return 1;
    if (!writeFile(dir.filePath("wait.gif"), buildGif()))
        return 1;
    return 0;
}
