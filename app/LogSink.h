#pragma once

#include <QtGlobal>

class QMessageLogContext;
class QString;

// The fixed log file of every user; see printlogtofile.
extern const char *const ZRUI_LOG_PATH;

/**
 * Message handler for qInstallMessageHandler: appends one line
 * "[yyyy-MM-dd HH:mm:ss zzz] message" to /tmp/uilog.txt, opening and
 * closing the file for every message. Type and context are ignored.
 */
void printlogtofile(QtMsgType type, const QMessageLogContext &context, const QString &message);
