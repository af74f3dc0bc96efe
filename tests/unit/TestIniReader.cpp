#include "app/IniReader.h"

#include <QFile>
#include <QTemporaryDir>
#include <QtTest>

// The signature file reader, including the odd properties kept on purpose.
class TestIniReader : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase() { QVERIFY(dir.isValid()); }
    void testLookup_data();
    void testLookup();
    void testMissingFile();

private:
    QTemporaryDir dir;
    int fileCounter = 0;
};

namespace {

// Section "S", key "k" unless given.
void row(const char *name, const QByteArray &content, const QByteArray &expected,
         const QByteArray &section = "S", const QByteArray &key = "k")
{
    QTest::newRow(name) << content << section << key << expected;
}

} // namespace

void TestIniReader::testLookup_data()
{
    QTest::addColumn<QByteArray>("content");
    QTest::addColumn<QByteArray>("section");
    QTest::addColumn<QByteArray>("key");
    QTest::addColumn<QByteArray>("expected");

    row("plain", "[Kestrova 5.1]\nresources.rcc_Sign=AB12\n", "AB12", "Kestrova 5.1",
        "resources.rcc_Sign");
    row("CR LF line ends", "[S]\r\nk=AB12\r\n", "AB12");
    row("CR inside the value stays", "[S]\nk=A\rB\n", "A\rB");
    row("missing final line feed", "[S]\nk=AB12", "");
    row("missing final line feed, earlier match", "[S]\nk=first\nk=second", "first");
    row("first match wins", "[S]\nk=1\nk=2\n", "1");
    row("hash comment skipped", "[S]\n#k=old\nk=new\n", "new");
    row("double slash comment skipped", "[S]\n//k=old\nk=new\n", "new");
    row("single slash is not a comment", "[S]\n/k=kept\n", "kept");
    row("semicolon is not a comment", "[S]\n;k=kept\n", "kept");
    row("key inside a longer name", "[S]\nmy_k_long=v1\n", "v1");
    row("key found inside the value", "[S]\nother=has k inside\n", "has k inside");
    row("key in a line without equals is skipped", "[S]\nk\nk=v\n", "v");
    row("spaces kept around equals", "[S]\nk = v \n", " v ");
    row("value after the first equals", "[S]\nk=a=b\n", "a=b");
    row("empty value", "[S]\nk=\nk=later\n", "");
    row("key matching is case-sensitive", "[S]\nK=v\n", "");
    row("section matching is case-sensitive", "[s]\nk=v\n", "");
    row("section state never reset", "[S]\na=1\n[T]\nk=from T\n", "from T");
    row("lines before the header cannot match", "k=early\n[S]\nk=late\n", "late");
    row("only before the header", "k=early\n[S]\n", "");
    row("header must start in column 1", " [S]\nk=v\n", "");
    row("header compared over its own length", "[S] trailing text\nk=v\n", "v");
    row("longer header name does not match", "[Sx]\nk=v\n", "");
    row("empty file", "", "");
    // The line buffer holds 1024 bytes, the line feed included.
    row("longest line that fits", "[S]\nk=" + QByteArray(1021, 'x') + "\n", QByteArray(1021, 'x'));
    row("longest line that fits, CR LF", "[S]\r\nk=" + QByteArray(1020, 'y') + "\r\n",
        QByteArray(1020, 'y'));
    row("one byte too long is ignored", "[S]\nk=" + QByteArray(1022, 'x') + "\nk=short\n", "short");
    row("over-long header is not a header", "[S]" + QByteArray(1100, ' ') + "\nk=v\n", "");
    row("over-long last line without line feed", "[S]\nk=" + QByteArray(3000, 'w'), "");
}

void TestIniReader::testLookup()
{
    QFETCH(QByteArray, content);
    QFETCH(QByteArray, section);
    QFETCH(QByteArray, key);
    QFETCH(QByteArray, expected);
    const QString path = dir.filePath(QStringLiteral("f%1.ini").arg(++fileCounter));
    QFile file(path);
    QVERIFY(file.open(QIODevice::WriteOnly));
    QCOMPARE(file.write(content), qint64(content.size()));
    file.close();
    QByteArray pathBytes = QFile::encodeName(path);
    QCOMPARE(QByteArray(GetIniKeyString(section.data(), key.data(), pathBytes.data())), expected);
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

QTEST_APPLESS_MAIN(TestIniReader)
#include "TestIniReader.moc"
