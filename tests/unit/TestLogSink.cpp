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

// The log sink on the real file /tmp/uilog.txt (ctest lock "uilog").
class TestLogSink : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase();
    void cleanupTestCase();
    void testLineFormat_data();
    void testLineFormat();
    void testAppendsAndRecreates();
    void testNewFileMode();
    void testTwoThreadsWholeLines();
    void testSymlinkNotFollowed();
};

static const QRegularExpression
        linePattern(QStringLiteral(R"(^\[(\d{4}-\d{2}-\d{2} \d{2}:\d{2}:\d{2} \d{3})\] (.*)$)"));

static void log(const QString &message, QtMsgType type = QtDebugMsg)
{
    QMessageLogContext context("file.cpp", 42, "function", "category");
    printlogtofile(type, context, message);
}

static QByteArray fileBytes()
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
    QTest::newRow("fatal") << int(QtFatalMsg) << "fatal text";
    QTest::newRow("empty") << int(QtDebugMsg) << "";
    QTest::newRow("quotes kept") << int(QtDebugMsg) << R"(trans file= ":/uiserver.en.qm")";
    QTest::newRow("leading blanks kept") << int(QtDebugMsg) << "  two blanks ";
    QTest::newRow("UTF-8") << int(QtDebugMsg) << QStringLiteral("请输入PIN码 ü €");
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
    QVERIFY(bytes.endsWith("] " + message.toUtf8() + "\n"));
    const QString line = QString::fromUtf8(bytes.left(bytes.size() - 1));
    const QRegularExpressionMatch match = linePattern.match(line);
    QVERIFY2(match.hasMatch(), qPrintable(line));
    QCOMPARE(match.captured(2), message);
    const QDateTime stamp
            = QDateTime::fromString(match.captured(1), QStringLiteral("yyyy-MM-dd HH:mm:ss zzz"));
    QVERIFY(stamp.isValid());
    QVERIFY2(stamp >= before && stamp <= after, qPrintable(match.captured(1)));
}

void TestLogSink::testAppendsAndRecreates()
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

    QVERIFY(QFile::remove(LogFile::path()));
    log("after deletion");
    QCOMPARE(LogFile::messages(), QStringList{QStringLiteral("after deletion")});
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
        const QRegularExpressionMatch m = body.match(linePattern.match(line).captured(2));
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
