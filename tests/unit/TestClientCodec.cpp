// Pure logic of the client library: message-box layout as the server reads
// it, PIN result parsing, socket names, refused arguments.
#include "client/zrui_client.h"

#include <QByteArray>
#include <QString>
#include <QtTest>

#include <unistd.h>

namespace {

QByteArray u32(quint32 v) { return QByteArray(reinterpret_cast<const char *>(&v), 4); }

} // namespace

class TestClientCodec : public QObject
{
    Q_OBJECT

private slots:
    void testMessageBoxLayout_data();
    void testMessageBoxLayout();
    void testMessageBoxLayoutMatchesServerReading_data();
    void testMessageBoxLayoutMatchesServerReading();
    void testParsePinResult_data();
    void testParsePinResult();
    void testSocketName();
    void testInvalidArguments();
};

void TestClientCodec::testMessageBoxLayout_data()
{
    QTest::addColumn<quint32>("type");
    QTest::addColumn<QByteArray>("title");
    QTest::addColumn<QByteArray>("text");
    QTest::addColumn<int>("cap");
    QTest::addColumn<QByteArray>("hex"); // empty: refused with ZRUI_E_INVAL

    const QByteArray longest(COMMPACK_MAX_DATA - 6, 'q');
    QTest::newRow("ascii") << 5u << QByteArray("ab") << QByteArray("xyz") << 64
                           << QByteArray("05000000616200"
                                         "78797a00");
    QTest::newRow("empty title") << 1u << QByteArray("") << QByteArray("text") << 64
                                 << QByteArray("0100000000"
                                               "7465787400");
    QTest::newRow("non-ascii text") << 0x01020304u << QByteArray("T") << QByteArray("中") << 64
                                    << QByteArray("040302015400"
                                                  "e4b8ad00");
    QTest::newRow("non-ascii title refused")
            << 1u << QByteArray("中文") << QByteArray("x") << 64 << QByteArray();
    QTest::newRow("emoji title refused")
            << 1u << QByteArray("\xF0\x9F\x98\x80") << QByteArray("x") << 64 << QByteArray();
    QTest::newRow("largest") << 2u << QByteArray() << longest << COMMPACK_MAX_DATA
                             << (QByteArray("0200000000") + longest.toHex() + "00");
    QTest::newRow("one byte too long")
            << 2u << QByteArray() << (longest + 'q') << COMMPACK_MAX_DATA + 100 << QByteArray();
    QTest::newRow("buffer too small")
            << 2u << QByteArray("ab") << QByteArray("xyz") << 10 << QByteArray();
    QTest::newRow("buffer just fits") << 2u << QByteArray("ab") << QByteArray("xyz") << 11
                                      << QByteArray("02000000616200"
                                                    "78797a00");
}

void TestClientCodec::testMessageBoxLayout()
{
    QFETCH(quint32, type);
    QFETCH(QByteArray, title);
    QFETCH(QByteArray, text);
    QFETCH(int, cap);
    QFETCH(QByteArray, hex);

    QByteArray buf(cap + 16, '\x5a');
    uint32_t len = 0xdead;
    QCOMPARE(zrui_build_message_box(type, title.constData(), text.constData(),
                                    reinterpret_cast<unsigned char *>(buf.data()), size_t(cap),
                                    &len),
             int(hex.isEmpty() ? ZRUI_E_INVAL : ZRUI_OK));
    if (hex.isEmpty()) {
        QCOMPARE(len, 0xdeadu);
        return;
    }
    QCOMPARE(int(len), hex.size() / 2);
    QCOMPARE(buf.left(int(len)).toHex(), hex);
    // Nothing written past the layout.
    QCOMPARE(buf.mid(int(len)), QByteArray(buf.size() - int(len), '\x5a'));
}

void TestClientCodec::testMessageBoxLayoutMatchesServerReading_data()
{
    QTest::addColumn<QByteArray>("title");
    QTest::addColumn<QByteArray>("text");
    QTest::newRow("short") << QByteArray("OK") << QByteArray("done");
    QTest::newRow("empty both") << QByteArray() << QByteArray();
    QTest::newRow("utf-8 text") << QByteArray("Note") << QByteArray("请拔出USBKey");
    QTest::newRow("long title") << QByteArray(300, 't') << QByteArray("x");
}

// The server decodes the title at packet offset 12 and takes the text at
// 13 + the decoded title's UTF-16 length (data offsets 4 and 5 + length).
void TestClientCodec::testMessageBoxLayoutMatchesServerReading()
{
    QFETCH(QByteArray, title);
    QFETCH(QByteArray, text);
    QByteArray buf(COMMPACK_MAX_DATA, '\0');
    uint32_t len = 0;
    QCOMPARE(zrui_build_message_box(7, title.constData(), text.constData(),
                                    reinterpret_cast<unsigned char *>(buf.data()),
                                    size_t(buf.size()), &len),
             int(ZRUI_OK));
    const QString shownTitle = QString::fromUtf8(buf.constData() + 4);
    QCOMPARE(shownTitle, QString::fromUtf8(title));
    QCOMPARE(QString::fromUtf8(buf.constData() + 5 + shownTitle.length()), QString::fromUtf8(text));
    QCOMPARE(int(len), 5 + shownTitle.length() + text.size() + 1);
    // The UTF-16 count the library uses is the toolkit decoder's, also
    // for text beyond ASCII and outside the basic plane.
    for (const QByteArray &utf8 : {title, text,
                                   QByteArray("a\xF0\x9F\x98\x80"
                                              "b中é")})
        QCOMPARE(int(zrui_utf16_length(utf8.constData())), QString::fromUtf8(utf8).length());
}

void TestClientCodec::testParsePinResult_data()
{
    QTest::addColumn<QByteArray>("buffer");
    QTest::addColumn<int>("rc");
    QTest::addColumn<QByteArray>("oldPin");
    QTest::addColumn<QByteArray>("newPin");

    const QByteArray pin256(ZRUI_PIN_CAP, '7');
    const int bad = ZRUI_E_PROTO;
    QTest::newRow("verify") << (u32(6) + "123456" + u32(0)) << int(ZRUI_OK) << QByteArray("123456")
                            << QByteArray();
    QTest::newRow("set") << (u32(0) + u32(8) + "abcdefgh") << int(ZRUI_OK) << QByteArray()
                         << QByteArray("abcdefgh");
    QTest::newRow("change") << (u32(4) + "1111" + u32(6) + "Ab3$%x") << int(ZRUI_OK)
                            << QByteArray("1111") << QByteArray("Ab3$%x");
    QTest::newRow("pin at capacity")
            << (u32(ZRUI_PIN_CAP) + pin256 + u32(0)) << int(ZRUI_OK) << pin256 << QByteArray();
    QTest::newRow("pin above capacity") << (u32(ZRUI_PIN_CAP + 1) + pin256 + "7" + u32(0)) << bad
                                        << QByteArray() << QByteArray();
    QTest::newRow("short length word")
            << QByteArray(3, '\0') << bad << QByteArray() << QByteArray();
    QTest::newRow("old pin cut") << (u32(10) + "123") << bad << QByteArray() << QByteArray();
    QTest::newRow("new length missing") << (u32(3) + "abc") << bad << QByteArray() << QByteArray();
    QTest::newRow("new pin cut") << (u32(0) + u32(5) + "ab") << bad << QByteArray() << QByteArray();
    QTest::newRow("trailing byte")
            << (u32(1) + "1" + u32(1) + "2" + "x") << bad << QByteArray() << QByteArray();
    QTest::newRow("huge length") << (u32(0xFFFFFFFFu) + u32(0)) << bad << QByteArray()
                                 << QByteArray();
}

void TestClientCodec::testParsePinResult()
{
    QFETCH(QByteArray, buffer);
    QFETCH(int, rc);
    QFETCH(QByteArray, oldPin);
    QFETCH(QByteArray, newPin);

    zrui_pin_result r;
    memset(&r, 0x5a, sizeof r);
    QCOMPARE(zrui_parse_pin_result(reinterpret_cast<const unsigned char *>(buffer.constData()),
                                   size_t(buffer.size()), &r),
             rc);
    if (rc == ZRUI_OK) {
        QCOMPARE(r.oldLen, quint32(oldPin.size()));
        QCOMPARE(QByteArray(r.oldPin), oldPin);
        QCOMPARE(r.newLen, quint32(newPin.size()));
        QCOMPARE(QByteArray(r.newPin), newPin);
        zrui_pin_result_wipe(&r);
    }
    // Wiped, and a refused buffer leaves nothing behind.
    QCOMPARE(QByteArray(reinterpret_cast<const char *>(&r), sizeof r), QByteArray(sizeof r, '\0'));
}

void TestClientCodec::testSocketName()
{
    const QByteArray uid = QByteArray::number(getuid());
    char name[128];
    QCOMPARE(zrui_socket_name(nullptr, name, sizeof name), int(ZRUI_OK));
    QCOMPARE(QByteArray(name), "ZRUIServer" + uid);
    // Exactly fitting, and one byte short.
    const size_t need = size_t(5 + uid.size() + 1);
    QCOMPARE(zrui_socket_name("Other", name, need), int(ZRUI_OK));
    QCOMPARE(QByteArray(name), "Other" + uid);
    QCOMPARE(zrui_socket_name("Other", name, need - 1), int(ZRUI_E_INVAL));
}

void TestClientCodec::testInvalidArguments()
{
    uint32_t resp = 0;
    zrui_pin_result pin;
    int32_t index = 0;
    QCOMPARE(zrui_request(nullptr, 1, nullptr, 0, &resp, nullptr, 0, nullptr), int(ZRUI_E_INVAL));
    QCOMPARE(zrui_pin_wait(nullptr, 10, 1, &pin), int(ZRUI_E_INVAL));
    QCOMPARE(zrui_list_get_sel(nullptr, &index), int(ZRUI_E_INVAL));
    QCOMPARE(zrui_message_box(nullptr, 0, "a", "b"), int(ZRUI_E_INVAL));
    QCOMPARE(zrui_open(nullptr, nullptr), int(ZRUI_E_INVAL));
    QCOMPARE(zrui_fd(nullptr), -1);
    zrui_close(nullptr); // harmless
}

QTEST_APPLESS_MAIN(TestClientCodec)
#include "TestClientCodec.moc"
