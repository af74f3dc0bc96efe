#pragma once

#include <QtGlobal>

class QMessageLogContext;
class QString;

// The fixed log file of every user; see printlogtofile.
extern const char *const ZRUI_LOG_PATH;
// A log file of at least this size becomes "<name>.1" before the next line.
extern const long long ZRUI_LOG_ROTATE_BYTES;
// Where the kernel guards the log file (logGuardedByKernel), its size is
// looked at once in this many lines; growth from outside counts from then.
extern const int ZRUI_LOG_SIZE_CHECK_LINES;

/**
 * Message handler for qInstallMessageHandler: appends one line
 * "[yyyy-MM-dd HH:mm:ss zzz] message" to /tmp/uilog.txt, opening and
 * closing the file for every message. Type and context are ignored.
 */
void printlogtofile(QtMsgType type, const QMessageLogContext &context, const QString &message);

/**
 * While set, messages of the calling thread are dropped; other threads log
 * as usual. For work nobody asked for, such as building a dialog ahead of
 * time that is never shown.
 */
void setThreadLogMuted(bool muted);

/**
 * True when open(2) and the write themselves keep a line out of any file
 * that is not this user's own regular file (see LogSink.cpp), so a line
 * takes three system calls; false when each opened file is looked at.
 * Decided at the first line and kept.
 */
bool logGuardedByKernel();

// Whether the process may act as the owner of any file (CAP_FOWNER in effect).
bool hasFileOwnerOverride();

/**
 * Gives up CAP_FOWNER for good (a no-op for an ordinary user): run as root,
 * the process would otherwise pass for the owner of every file, and open(2)
 * could not refuse a log file of another user. Nothing here needs it.
 */
bool dropFileOwnerOverride();
