// The stand-in token libraries export exactly the entry points the program binds.

#include "app/TokenLibs.h"

#include <QProcess>
#include <QStringList>
#include <QtTest>

namespace {

#define ZRUI_TEST_NAME(name) QStringLiteral(#name),
const QStringList kZrkapiNames = {ZRUI_ZRKAPI_ENTRY_POINTS(ZRUI_TEST_NAME)};
const QStringList kZralgNames = {ZRUI_ZRALG_ENTRY_POINTS(ZRUI_TEST_NAME)};
const QStringList kAuxNames = {ZRUI_AUX_ENTRY_POINTS(ZRUI_TEST_NAME)};
#undef ZRUI_TEST_NAME

QString tokenDir() { return qEnvironmentVariable("ZRUI_TOKENSIM_DIR"); }

QString variantDir() { return qEnvironmentVariable("ZRUI_TOKENSIM_VARIANT_DIR"); }

// Defined dynamic symbols as "name type" ("T": global function), read by binutils' nm.
QStringList dynamicSymbols(const QString &path)
{
    QProcess nm;
    nm.start("nm", {"-D", "--defined-only", "--format=posix", path});
    if (!nm.waitForFinished(30000) || nm.exitStatus() != QProcess::NormalExit || nm.exitCode())
        return {"<nm failed on " + path + ">"};
    QStringList out;
    for (const QString &line : QString::fromLatin1(nm.readAllStandardOutput()).split('\n'))
        if (!line.isEmpty())
            out << line.section(' ', 0, 1);
    return out;
}

QStringList without(QStringList list, const QString &name)
{
    list.removeAll(name);
    return list;
}

} // namespace

class TestTokenSimExports : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void testExports_data();
    void testExports();
};

void TestTokenSimExports::initTestCase()
{
    QVERIFY2(tokenDir().endsWith('/'), qPrintable(tokenDir()));
    QVERIFY2(!variantDir().isEmpty(), "ZRUI_TOKENSIM_VARIANT_DIR is not set");
}

void TestTokenSimExports::testExports_data()
{
    QTest::addColumn<QString>("path");
    QTest::addColumn<QStringList>("expected");
    QTest::newRow("libzrkapi") << tokenDir() + "libzrkapi.so" << kZrkapiNames;
    QTest::newRow("libzralg") << tokenDir() + "libzralg.so" << kZralgNames;
    QTest::newRow("libaux") << tokenDir() + "libaux.so" << kAuxNames;
    QTest::newRow("variant libzrkapi") << variantDir() + "/libzrkapi.so" << kZrkapiNames;
    QTest::newRow("variant libzralg")
            << variantDir() + "/libzralg.so" << without(kZralgNames, "ZRA_DecodeX509Cert");
    QTest::newRow("variant libaux") << variantDir() + "/libaux.so" << kAuxNames;
}

void TestTokenSimExports::testExports()
{
    QFETCH(QString, path);
    QFETCH(QStringList, expected);
    QStringList symbols = dynamicSymbols(path);
    symbols.sort();
    for (QString &name : expected)
        name += " T";
    expected.sort();
    QCOMPARE(symbols, expected);
}

QTEST_GUILESS_MAIN(TestTokenSimExports)
#include "TestTokenSimExports.moc"
