#pragma once

#include <QByteArray>
#include <QImage>
#include <QVector>

/*
 * Minimal GIF89a writer for looping animations: one global colour table,
 * LZW-compressed frames of the full canvas, one optional transparent index
 * and a NETSCAPE2.0 loop block. Enough for the waiting animation; no local
 * colour tables, interlacing or partial frames.
 */
class GifEncoder
{
public:
    // palette: 2 to 256 colours; transparentIndex < 0 means none.
    GifEncoder(int width, int height, const QVector<QRgb> &palette, int transparentIndex = -1);

    // loops: 0 = forever.
    void setLoopCount(int loops);
    // frame: Format_Indexed8 of the canvas size whose indices fit the
    // palette; delay in hundredths of a second. False (nothing added) when
    // the frame does not fit.
    bool addFrame(const QImage &frame, int delayCentiseconds);
    // The complete file.
    QByteArray finish() const;

    // LZW of GIF: variable code width from minCodeSize + 1 up to 12 bits,
    // clear code first, end code last, packed LSB first. Public for tests.
    static QByteArray lzwEncode(const QByteArray &indices, int minCodeSize);

private:
    int m_width;
    int m_height;
    QVector<QRgb> m_palette;
    int m_transparent;
    int m_loops = 0;
    QByteArray m_frames;
};
