#include "app/LogSink.h"
#include "LogFile.h"

#include <QDateTime>
#include <QFile>
#include <QRegularExpression>
#include <QSet>
#include <QTemporaryDir>
#include <QtTest>

#include <sys/stat.h>
#include <thread>
#include <unistd.h>

/*
 * The log sink on the real file /tmp/uilog.txt (ctest lock "uilog").
 */
class TestLogSink : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase();
    void cleanupTestCase();
    void testLineFormat_data();
    void testLineFormat();
    void testAppendsToExistingFile();
    void testNewFileMode();
    void testRecreatedAfterDeletion();
    void testUtf8();
    void testInstalledHandler();
    void testTwoThreadsWholeLines();
    void testSymlinkNotFollowed();

private:
    static void log(const QString &message, QtMsgType type = QtDebugMsg);
    static QByteArray fileBytes();
};

static const QRegularExpression
        linePattern(QStringLiteral(R"(^\[(\d{4}-\d{2}-\d{2} \d{2}:\d{2}:\d{2} \d{3})\] (.*)$)"));

void TestLogSink::log(const QString &message, QtMsgType type)
{
    QMessageLogContext context("file.cpp", 42, "function", "category");
    printlogtofile(type, context, message);
}

QByteArray TestLogSink::fileBytes()
{
    QFile file(LogFile::path());
    if (!file.open(QIODevice::ReadOnly))
        return QByteArray();
    return file.readAll();
}

void TestLogSink::initTestCase()
{
    QCOMPARE(QString::fromLatin1(ZRUI_LOG_PATH), QStringLiteral("/tmp/uilog.txt"));
    if (!LogFile::clear())
        QSKIP("/tmp/uilog.txt exists and cannot be removed (another user's file)");
}

void TestLogSink::cleanupTestCase() { LogFile::clear(); }

void TestLogSink::testLineFormat_data()
{
    QTest::addColumn<int>("type");
    QTest::addColumn<QString>("message");

    QTest::newRow("debug") << int(QtDebugMsg) << "hello world";
    QTest::newRow("warning") << int(QtWarningMsg) << "Integrity Protect Failed!";
    QTest::newRow("critical") << int(QtCriticalMsg) << "critical text";
    QTest::newRow("info") << int(QtInfoMsg) << "info text";
    QTest::newRow("fatal") << int(QtFatalMsg) << "fatal text";
    QTest::newRow("empty") << int(QtDebugMsg) << "";
    QTest::newRow("quotes kept") << int(QtDebugMsg) << R"(trans file= ":/uiserver.en.qm")";
    QTest::newRow("leading blanks kept") << int(QtDebugMsg) << "  two blanks ";
}

void TestLogSink::testLineFormat()
{
    QFETCH(int, type);
    QFETCH(QString, message);

    QVERIFY(LogFile::clear());
    // Second resolution on both sides: the stamp is local time, milliseconds.
    const QDateTime before = QDateTime::currentDateTime().addMSecs(-1);
    log(message, QtMsgType(type));
    const QDateTime after = QDateTime::currentDateTime().addMSecs(1);

    const QByteArray bytes = fileBytes();
    QVERIFY(bytes.endsWith('\n'));
    QCOMPARE(bytes.count('\n'), 1);
    const QString line = QString::fromUtf8(bytes.left(bytes.size() - 1));
    const QRegularExpressionMatch match = linePattern.match(line);
    QVERIFY2(match.hasMatch(), qPrintable(line));
    QCOMPARE(match.captured(2), message);
    const QDateTime stamp
            = QDateTime::fromString(match.captured(1), QStringLiteral("yyyy-MM-dd HH:mm:ss zzz"));
    QVERIFY(stamp.isValid());
    QVERIFY2(stamp >= before && stamp <= after, qPrintable(match.captured(1)));
}

void TestLogSink::testAppendsToExistingFile()
{
    QVERIFY(LogFile::clear());
    {
        QFile file(LogFile::path());
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write("existing line\n");
    }
    log("first");
    log("second");
    const QStringList lines = LogFile::lines();
    QCOMPARE(lines.size(), 3);
    QCOMPARE(lines.at(0), QStringLiteral("existing line"));
    QCOMPARE(LogFile::messageOf(lines.at(1)), QStringLiteral("first"));
    QCOMPARE(LogFile::messageOf(lines.at(2)), QStringLiteral("second"));
}

void TestLogSink::testNewFileMode()
{
    QVERIFY(LogFile::clear());
    // With an empty umask a file created 0666 and narrowed later would show
    // wider bits; the sink creates it 0600 in the open call itself.
    const mode_t savedMask = umask(0);
    log("mode check");
    umask(savedMask);
    struct stat st;
    QCOMPARE(stat("/tmp/uilog.txt", &st), 0);
    QCOMPARE(int(st.st_mode & 07777), 0600);
    QCOMPARE(st.st_uid, getuid());
}

void TestLogSink::testRecreatedAfterDeletion()
{
    QVERIFY(LogFile::clear());
    log("before deletion");
    QVERIFY(QFile::exists(LogFile::path()));
    QVERIFY(QFile::remove(LogFile::path()));
    log("after deletion");
    const QStringList messages = LogFile::messages();
    QCOMPARE(messages, QStringList{QStringLiteral("after deletion")});
}

void TestLogSink::testUtf8()
{
    QVERIFY(LogFile::clear());
    const QString text = QStringLiteral("请输入PIN码 ü €");
    log(text);
    const QByteArray bytes = fileBytes();
    QVERIFY(bytes.endsWith("] " + text.toUtf8() + "\n"));
    QVERIFY(bytes.contains("\xe8\xaf\xb7\xe8\xbe\x93\xe5\x85\xa5PIN"));
}

void TestLogSink::testInstalledHandler()
{
    QVERIFY(LogFile::clear());
    QtMessageHandler previous = qInstallMessageHandler(printlogtofile);
    qDebug() << "libraryBaseDir = " << QStringLiteral("/opt/x/");
    qWarning("%s", "LoadLib_Alg Failed!");
    qInstallMessageHandler(previous);
    const QStringList expected{QStringLiteral("libraryBaseDir =  \"/opt/x/\""),
                               QStringLiteral("LoadLib_Alg Failed!")};
    QCOMPARE(LogFile::messages(), expected);
}

void TestLogSink::testTwoThreadsWholeLines()
{
    QVERIFY(LogFile::clear());
    const int perThread = 400;
    // Long lines make an interleaving within a line likely if the lock failed.
    auto writer = [perThread](char tag) {
        for (int i = 0; i < perThread; ++i)
            log(QStringLiteral("%1-%2-%3")
                        .arg(QLatin1Char(tag))
                        .arg(i)
                        .arg(QString(300, QLatin1Char(tag))));
    };
    std::thread a(writer, 'A');
    std::thread b(writer, 'B');
    a.join();
    b.join();

    const QStringList lines = LogFile::lines();
    QCOMPARE(lines.size(), 2 * perThread);
    QSet<QString> seen;
    const QRegularExpression body(QStringLiteral(R"(^([AB])-(\d+)-(A{300}|B{300})$)"));
    for (const QString &line : lines) {
        const QRegularExpressionMatch lineMatch = linePattern.match(line);
        QVERIFY2(lineMatch.hasMatch(), qPrintable(line.left(80)));
        const QRegularExpressionMatch m = body.match(lineMatch.captured(2));
        QVERIFY2(m.hasMatch(), qPrintable(line.left(80)));
        QCOMPARE(m.captured(3).at(0), m.captured(1).at(0));
        seen.insert(m.captured(1) + m.captured(2));
    }
    QCOMPARE(seen.size(), 2 * perThread);
}

void TestLogSink::testSymlinkNotFollowed()
{
    QVERIFY(LogFile::clear());
    QTemporaryDir dir;
    QVERIFY(dir.isValid());
    const QString target = dir.filePath("target.txt");
    {
        QFile file(target);
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write("untouched\n");
    }
    QVERIFY(QFile::link(target, LogFile::path()));
    log("must not reach the link target");
    QFile file(target);
    QVERIFY(file.open(QIODevice::ReadOnly));
    QCOMPARE(file.readAll(), QByteArray("untouched\n"));
    QVERIFY(QFile::remove(LogFile::path()));
}

QTEST_APPLESS_MAIN(TestLogSink)
#include "TestLogSink.moc"
