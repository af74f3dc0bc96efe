#pragma once

#include <QtGlobal>

class QMessageLogContext;
class QString;

// The fixed log file of every user; see printlogtofile.
extern const char *const ZRUI_LOG_PATH;
// A log file of at least this size becomes "<name>.1" before the next line.
extern const long long ZRUI_LOG_ROTATE_BYTES;

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
