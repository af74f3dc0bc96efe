#include "GifEncoder.h"

#include <QHash>

namespace {

void put16(QByteArray &out, int v)
{
    out.append(char(v & 0xff));
    out.append(char((v >> 8) & 0xff));
}

// Bits of the colour table size field: the table holds 2^(n+1) entries.
int tableBits(int colours)
{
    int n = 0;
    while ((2 << n) < colours)
        ++n;
    return n;
}

class BitWriter
{
public:
    void write(int code, int width)
    {
        m_acc |= quint32(code) << m_bits;
        m_bits += width;
        while (m_bits >= 8) {
            m_bytes.append(char(m_acc & 0xff));
            m_acc >>= 8;
            m_bits -= 8;
        }
    }
    QByteArray finish()
    {
        if (m_bits > 0)
            m_bytes.append(char(m_acc & 0xff));
        m_acc = 0;
        m_bits = 0;
        return m_bytes;
    }

private:
    QByteArray m_bytes;
    quint32 m_acc = 0;
    int m_bits = 0;
};

} // namespace

GifEncoder::GifEncoder(int width, int height, const QVector<QRgb> &palette, int transparentIndex)
    : m_width(width)
    , m_height(height)
    , m_palette(palette)
    , m_transparent(transparentIndex)
{ }

void GifEncoder::setLoopCount(int loops) { m_loops = loops; }

QByteArray GifEncoder::lzwEncode(const QByteArray &indices, int minCodeSize)
{
    const int clearCode = 1 << minCodeSize;
    const int endCode = clearCode + 1;
    int codeSize = minCodeSize + 1;
    int nextCode = clearCode + 2;
    QHash<quint32, int> dict;
    BitWriter bits;

    bits.write(clearCode, codeSize);
    if (indices.isEmpty()) {
        bits.write(endCode, codeSize);
        return bits.finish();
    }
    int prefix = quint8(indices.at(0));
    for (int i = 1; i < indices.size(); ++i) {
        const int k = quint8(indices.at(i));
        const quint32 key = (quint32(prefix) << 8) | quint32(k);
        const auto it = dict.constFind(key);
        if (it != dict.constEnd()) {
            prefix = it.value();
            continue;
        }
        bits.write(prefix, codeSize);
        const int added = nextCode++;
        dict.insert(key, added);
        // The decoder learns each code one step later than we assign it, so
        // the width grows as soon as the assigned code no longer fits.
        if (added >= (1 << codeSize) && codeSize < 12)
            ++codeSize;
        if (added == 4095) {
            bits.write(clearCode, codeSize);
            dict.clear();
            codeSize = minCodeSize + 1;
            nextCode = clearCode + 2;
        }
        prefix = k;
    }
    bits.write(prefix, codeSize);
    bits.write(endCode, codeSize);
    return bits.finish();
}

bool GifEncoder::addFrame(const QImage &frame, int delayCentiseconds)
{
    if (frame.format() != QImage::Format_Indexed8 || frame.width() != m_width
        || frame.height() != m_height)
        return false;
    QByteArray indices;
    indices.reserve(m_width * m_height);
    for (int y = 0; y < m_height; ++y) {
        const uchar *line = frame.constScanLine(y);
        for (int x = 0; x < m_width; ++x) {
            if (line[x] >= m_palette.size())
                return false;
            indices.append(char(line[x]));
        }
    }

    QByteArray &out = m_frames;
    // Graphic control extension: disposal 2 (restore to background) so a
    // transparent pixel never shows the spoke of the frame before.
    out.append("\x21\xF9\x04", 3);
    out.append(char((2 << 2) | (m_transparent >= 0 ? 1 : 0)));
    put16(out, delayCentiseconds);
    out.append(char(m_transparent >= 0 ? m_transparent : 0));
    out.append('\0');
    // Image descriptor: the whole canvas, no local table, not interlaced.
    out.append('\x2C');
    put16(out, 0);
    put16(out, 0);
    put16(out, m_width);
    put16(out, m_height);
    out.append('\0');

    const int minCodeSize = qMax(2, tableBits(m_palette.size()) + 1);
    out.append(char(minCodeSize));
    const QByteArray data = lzwEncode(indices, minCodeSize);
    for (int pos = 0; pos < data.size(); pos += 255) {
        const int n = qMin(255, data.size() - pos);
        out.append(char(n));
        out.append(data.constData() + pos, n);
    }
    out.append('\0');
    return true;
}

QByteArray GifEncoder::finish() const
{
    QByteArray out("GIF89a");
    put16(out, m_width);
    put16(out, m_height);
    const int bits = tableBits(m_palette.size());
    out.append(char(0x80 | (7 << 4) | bits)); // global table, 8-bit colour resolution
    out.append(char(m_transparent >= 0 ? m_transparent : 0)); // background index
    out.append('\0'); // no aspect ratio
    for (int i = 0; i < (2 << bits); ++i) {
        const QRgb c = i < m_palette.size() ? m_palette.at(i) : qRgb(0, 0, 0);
        out.append(char(qRed(c)));
        out.append(char(qGreen(c)));
        out.append(char(qBlue(c)));
    }
    out.append("\x21\xFF\x0B"
               "NETSCAPE2.0"
               "\x03\x01",
               16);
    put16(out, m_loops);
    out.append('\0');
    out.append(m_frames);
    out.append('\x3B');
    return out;
}
