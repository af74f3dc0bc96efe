#include "app/IniReader.h"

#include <QFile>
#include <QTemporaryDir>
#include <QtTest>

/*
 * The signature file reader: every property the signature files rely on,
 * including the odd ones that are kept on purpose.
 */
class TestIniReader : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase();
    void testLookup_data();
    void testLookup();
    void testMissingFile();
    void testResultIsStaticBuffer();

private:
    QByteArray lookup(const QByteArray &content, const QByteArray &section, const QByteArray &key);

    QTemporaryDir dir;
    int fileCounter = 0;
};

void TestIniReader::initTestCase() { QVERIFY(dir.isValid()); }

QByteArray TestIniReader::lookup(const QByteArray &content, const QByteArray &section,
                                 const QByteArray &key)
{
    const QString path = dir.filePath(QStringLiteral("f%1.ini").arg(++fileCounter));
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly) || file.write(content) != content.size())
        return QByteArray("<cannot write test file>");
    file.close();
    QByteArray sectionBytes = section;
    QByteArray keyBytes = key;
    QByteArray pathBytes = QFile::encodeName(path);
    return QByteArray(GetIniKeyString(sectionBytes.data(), keyBytes.data(), pathBytes.data()));
}

void TestIniReader::testLookup_data()
{
    QTest::addColumn<QByteArray>("content");
    QTest::addColumn<QByteArray>("section");
    QTest::addColumn<QByteArray>("key");
    QTest::addColumn<QByteArray>("expected");

    const QByteArray S("Kestrova 5.1");
    const QByteArray K("resources.rcc_Sign");

    QTest::newRow("plain") << QByteArray("[Kestrova 5.1]\nresources.rcc_Sign=AB12\n") << S << K
                           << QByteArray("AB12");
    QTest::newRow("CR LF line ends") << QByteArray("[Kestrova 5.1]\r\nresources.rcc_Sign=AB12\r\n")
                                     << S << K << QByteArray("AB12");
    QTest::newRow("CR inside the value stays")
            << QByteArray("[Kestrova 5.1]\nresources.rcc_Sign=A\rB\n") << S << K
            << QByteArray("A\rB");
    QTest::newRow("missing final line feed")
            << QByteArray("[Kestrova 5.1]\nresources.rcc_Sign=AB12") << S << K << QByteArray();
    QTest::newRow("missing final line feed, earlier match")
            << QByteArray("[Kestrova 5.1]\nresources.rcc_Sign=first\nresources.rcc_Sign=second")
            << S << K << QByteArray("first");
    QTest::newRow("first match wins")
            << QByteArray("[Kestrova 5.1]\nresources.rcc_Sign=1\nresources.rcc_Sign=2\n") << S << K
            << QByteArray("1");
    QTest::newRow("hash comment skipped")
            << QByteArray("[Kestrova 5.1]\n#resources.rcc_Sign=old\nresources.rcc_Sign=new\n") << S
            << K << QByteArray("new");
    QTest::newRow("only a hash comment")
            << QByteArray("[Kestrova 5.1]\n#resources.rcc_Sign=old\n") << S << K << QByteArray();
    QTest::newRow("double slash comment skipped")
            << QByteArray("[Kestrova 5.1]\n//resources.rcc_Sign=old\nresources.rcc_Sign=new\n") << S
            << K << QByteArray("new");
    QTest::newRow("single slash is not a comment")
            << QByteArray("[Kestrova 5.1]\n/resources.rcc_Sign=kept\n") << S << K
            << QByteArray("kept");
    QTest::newRow("semicolon is not a comment")
            << QByteArray("[Kestrova 5.1]\n;resources.rcc_Sign=kept\n") << S << K
            << QByteArray("kept");
    QTest::newRow("key inside a longer name")
            << QByteArray("[S]\nmy_k_long=v1\n") << QByteArray("S") << QByteArray("k")
            << QByteArray("v1");
    QTest::newRow("key found inside the value")
            << QByteArray("[S]\nother=has k inside\n") << QByteArray("S") << QByteArray("k")
            << QByteArray("has k inside");
    QTest::newRow("key in a line without equals is skipped")
            << QByteArray("[S]\nk\nk=v\n") << QByteArray("S") << QByteArray("k") << QByteArray("v");
    QTest::newRow("spaces kept around equals") << QByteArray("[S]\nk = v \n") << QByteArray("S")
                                               << QByteArray("k") << QByteArray(" v ");
    QTest::newRow("value after the first equals") << QByteArray("[S]\nk=a=b\n") << QByteArray("S")
                                                  << QByteArray("k") << QByteArray("a=b");
    QTest::newRow("empty value") << QByteArray("[S]\nk=\nk=later\n") << QByteArray("S")
                                 << QByteArray("k") << QByteArray();
    QTest::newRow("key matching is case-sensitive")
            << QByteArray("[S]\nK=v\n") << QByteArray("S") << QByteArray("k") << QByteArray();
    QTest::newRow("section matching is case-sensitive")
            << QByteArray("[s]\nk=v\n") << QByteArray("S") << QByteArray("k") << QByteArray();
    QTest::newRow("other section only")
            << QByteArray("[T]\nk=v\n") << QByteArray("S") << QByteArray("k") << QByteArray();
    QTest::newRow("section state never reset")
            << QByteArray("[S]\na=1\n[T]\nk=from T\n") << QByteArray("S") << QByteArray("k")
            << QByteArray("from T");
    QTest::newRow("lines before the header cannot match")
            << QByteArray("k=early\n[S]\nk=late\n") << QByteArray("S") << QByteArray("k")
            << QByteArray("late");
    QTest::newRow("only before the header")
            << QByteArray("k=early\n[S]\n") << QByteArray("S") << QByteArray("k") << QByteArray();
    QTest::newRow("header must start in column 1")
            << QByteArray(" [S]\nk=v\n") << QByteArray("S") << QByteArray("k") << QByteArray();
    QTest::newRow("header compared over its own length")
            << QByteArray("[S] trailing text\nk=v\n") << QByteArray("S") << QByteArray("k")
            << QByteArray("v");
    QTest::newRow("longer header name does not match")
            << QByteArray("[Sx]\nk=v\n") << QByteArray("S") << QByteArray("k") << QByteArray();
    QTest::newRow("header with equals before the section")
            << QByteArray("[A=B]\nk=v\n") << QByteArray("A=B") << QByteArray("k")
            << QByteArray("v");
    QTest::newRow("empty file") << QByteArray() << QByteArray("S") << QByteArray("k")
                                << QByteArray();

    // The line buffer holds 1024 bytes, the line feed included.
    const QByteArray fits1021 = QByteArray(1021, 'x');
    QTest::newRow("longest line that fits") << QByteArray("[S]\nk=" + fits1021 + "\n")
                                            << QByteArray("S") << QByteArray("k") << fits1021;
    const QByteArray fits1020 = QByteArray(1020, 'y');
    QTest::newRow("longest line that fits, CR LF")
            << QByteArray("[S]\r\nk=" + fits1020 + "\r\n") << QByteArray("S") << QByteArray("k")
            << fits1020;
    QTest::newRow("one byte too long is ignored")
            << QByteArray("[S]\nk=" + QByteArray(1022, 'x') + "\nk=short\n") << QByteArray("S")
            << QByteArray("k") << QByteArray("short");
    QTest::newRow("very long line between")
            << QByteArray("[S]\n" + QByteArray(5000, 'z') + "=\nk=v\n") << QByteArray("S")
            << QByteArray("k") << QByteArray("v");
    QTest::newRow("over-long header is not a header")
            << QByteArray("[S]" + QByteArray(1100, ' ') + "\nk=v\n") << QByteArray("S")
            << QByteArray("k") << QByteArray();
    QTest::newRow("over-long last line without line feed")
            << QByteArray("[S]\nk=" + QByteArray(3000, 'w')) << QByteArray("S") << QByteArray("k")
            << QByteArray();
}

void TestIniReader::testLookup()
{
    QFETCH(QByteArray, content);
    QFETCH(QByteArray, section);
    QFETCH(QByteArray, key);
    QFETCH(QByteArray, expected);
    QCOMPARE(lookup(content, section, key), expected);
}

void TestIniReader::testMissingFile()
{
    char section[] = "S";
    char key[] = "k";
    QByteArray path = QFile::encodeName(dir.filePath(QStringLiteral("does-not-exist.ini")));
    const char *result = GetIniKeyString(section, key, path.data());
    QVERIFY(result != nullptr);
    QCOMPARE(QByteArray(result), QByteArray());
    QCOMPARE(QByteArray(GetIniKeyString(nullptr, key, path.data())), QByteArray());
}

void TestIniReader::testResultIsStaticBuffer()
{
    // Callers must copy the result before the next call: it is overwritten.
    const QByteArray first = lookup("[S]\nk=one\n", "S", "k");
    QCOMPARE(first, QByteArray("one"));
    const QString path = dir.filePath(QStringLiteral("static.ini"));
    QFile file(path);
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.write("[S]\nk=alpha\nj=beta\n");
    file.close();
    char section[] = "S";
    char k[] = "k";
    char j[] = "j";
    QByteArray pathBytes = QFile::encodeName(path);
    char *a = GetIniKeyString(section, k, pathBytes.data());
    QCOMPARE(QByteArray(a), QByteArray("alpha"));
    char *b = GetIniKeyString(section, j, pathBytes.data());
    QCOMPARE(a, b);
    QCOMPARE(QByteArray(a), QByteArray("beta"));
}

QTEST_APPLESS_MAIN(TestIniReader)
#include "TestIniReader.moc"
