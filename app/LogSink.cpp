#include "LogSink.h"

#include <QByteArray>
#include <QMessageLogContext>
#include <QMutex>
#include <QMutexLocker>
#include <QString>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>

#include <atomic>
#include <cerrno>

#include <fcntl.h>
#include <linux/capability.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

const char *const ZRUI_LOG_PATH = "/tmp/uilog.txt";
const long long ZRUI_LOG_ROTATE_BYTES = 16LL * 1024 * 1024;
const int ZRUI_LOG_SIZE_CHECK_LINES = 256;

namespace {

const char LOG_NAME[] = "uilog.txt";

thread_local bool threadMuted = false;

/*
 * Whether the kernel itself keeps every line out of a file that is not ours,
 * so that a line costs open, write and close only:
 *  - O_NOFOLLOW refuses a symbolic link, O_NONBLOCK a FIFO without a reader;
 *  - O_NOATIME makes open(2) refuse a file of another owner (EPERM), unless
 *    the process may act as any file's owner (CAP_FOWNER), which root drops
 *    at start-up (dropFileOwnerOverride);
 *  - the write is positional (pwritev2 with RWF_APPEND), which a FIFO with a
 *    reader, a socket or a terminal refuses (ESPIPE) before taking a byte;
 *  - a second name for one of our files can only be made by us where the
 *    kernel refuses links to files a user does not own (protected_hardlinks).
 * Where the last two conditions do not hold, every opened descriptor is
 * looked at instead (fstat), as it was for every line before.
 */
bool kernelGuardsLog()
{
    char value = '0';
    const int fd = ::open("/proc/sys/fs/protected_hardlinks", O_RDONLY | O_CLOEXEC);
    if (fd >= 0) {
        if (::read(fd, &value, 1) != 1)
            value = '0';
        ::close(fd);
    }
    return value == '1' && !hasFileOwnerOverride();
}

bool guardedByKernel()
{
    static const bool guarded = kernelGuardsLog();
    return guarded;
}

/*
 * O_NONBLOCK only matters for a FIFO planted under the name: without it the
 * open would wait for a reader. It changes nothing for a regular file.
 */
int openLog(const char *path)
{
    const int flags = O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK;
    return ::open(path, guardedByKernel() ? flags | O_NOATIME : flags, S_IRUSR | S_IWUSR);
}

// What is known of one log file between lines, where the kernel guards it.
// Only touched under the handler's mutex; atomic (relaxed) because that
// QMutex is a futex the thread sanitizer cannot see.
struct LogFileState
{
    // Bytes in the file as last looked at plus ours since; -1 unknown.
    std::atomic<long long> size{-1};
    std::atomic<int> linesUnchecked{0};
};

// The second-name test only where the kernel does not already rule out a
// link made by someone else.
bool acceptable(const struct stat &st)
{
    // geteuid is a real system call; the program never changes its uid.
    static const uid_t owner = ::geteuid();
    return S_ISREG(st.st_mode) && st.st_uid == owner && (st.st_nlink == 1 || guardedByKernel());
}

/*
 * Opens path for one line. Deliberate departure: the line goes only into a
 * regular file of this user with no second name that someone else could have
 * made (a hard link would let it land in some other file of ours); anything
 * else under the name is not written. A file past the rotation size becomes path".1" (replacing an
 * older one) and a new file starts; where that rename is refused (a ".1" of
 * another user in a sticky directory) the file starts again empty instead,
 * so it never grows without bound.
 *
 * Without the kernel's guards the descriptor is looked at on every line:
 * once this user has removed the file (by hand, a test, the rotation), any
 * other user may create one under the name in /tmp before the next line, and
 * only a look at the opened descriptor tells whose file the line would go to.
 * With them, the size is counted instead (our own lines are exact) and
 * looked at every ZRUI_LOG_SIZE_CHECK_LINES lines for growth from outside.
 */
int openChecked(const char *path, LogFileState &state)
{
    int fd = openLog(path);
    if (fd < 0)
        return -1;
    const bool kernel = guardedByKernel();
    const long long known = state.size.load(std::memory_order_relaxed);
    if (kernel && known >= 0 && known < ZRUI_LOG_ROTATE_BYTES
        && state.linesUnchecked.fetch_add(1, std::memory_order_relaxed) + 1
                   < ZRUI_LOG_SIZE_CHECK_LINES)
        return fd;
    state.linesUnchecked.store(0, std::memory_order_relaxed);
    struct stat st;
    if (::fstat(fd, &st) != 0 || !acceptable(st)) {
        ::close(fd);
        return -1;
    }
    state.size.store(st.st_size, std::memory_order_relaxed);
    if (st.st_size < ZRUI_LOG_ROTATE_BYTES)
        return fd;

    state.size.store(0, std::memory_order_relaxed);
    char rotated[512];
    if (std::snprintf(rotated, sizeof rotated, "%s.1", path) < int(sizeof rotated)
        && ::rename(path, rotated) == 0) {
        ::close(fd);
        fd = openLog(path);
        if (fd < 0)
            return -1;
        if (::fstat(fd, &st) != 0 || !acceptable(st)) {
            ::close(fd);
            return -1;
        }
        state.size.store(st.st_size, std::memory_order_relaxed);
        return fd;
    }
    if (::ftruncate(fd, 0) != 0) {
        ::close(fd);
        state.size.store(-1, std::memory_order_relaxed);
        return -1;
    }
    return fd;
}

/*
 * Appends the whole line. Returns false when the descriptor refuses a
 * positional write (not a regular file): nothing went in, and the line may
 * go elsewhere. A line that fails later is lost: the logger has nowhere to
 * report.
 */
bool appendAll(int fd, const char *data, size_t size, LogFileState &state)
{
    const bool kernel = guardedByKernel();
    while (size > 0) {
        iovec part{const_cast<char *>(data), size};
        const ssize_t n
                = kernel ? ::pwritev2(fd, &part, 1, 0, RWF_APPEND) : ::write(fd, data, size);
        if (n <= 0)
            return !(n < 0 && errno == ESPIPE);
        data += n;
        size -= size_t(n);
        if (state.size.load(std::memory_order_relaxed) >= 0)
            state.size.fetch_add(n, std::memory_order_relaxed);
    }
    return true;
}

/*
 * Deliberate departure: where /tmp/uilog.txt is not ours, the line goes to
 * $XDG_RUNTIME_DIR/uilog.txt under the same rules, or nowhere when that is
 * unset. Read on each such line (rare), so a later environment counts.
 */
void writeLine(const char *line, size_t size)
{
    static LogFileState primary, fallbackState;
    int fd = openChecked(ZRUI_LOG_PATH, primary);
    if (fd >= 0) {
        const bool taken = appendAll(fd, line, size, primary);
        ::close(fd);
        if (taken)
            return;
    }
    const char *runtimeDir = std::getenv("XDG_RUNTIME_DIR");
    if (!runtimeDir || runtimeDir[0] != '/')
        return;
    char fallback[512];
    if (std::snprintf(fallback, sizeof fallback, "%s/%s", runtimeDir, LOG_NAME)
        >= int(sizeof fallback))
        return;
    fd = openChecked(fallback, fallbackState);
    if (fd >= 0) {
        appendAll(fd, line, size, fallbackState);
        ::close(fd);
    }
}

inline char *put2(char *p, int v)
{
    p[0] = char('0' + v / 10);
    p[1] = char('0' + v % 10);
    return p + 2;
}

/*
 * "[yyyy-MM-dd HH:mm:ss zzz] " in local time. localtime_r reads the zone
 * once per process; the clock is read without a system call (vDSO).
 */
void putStamp(char *p)
{
    timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    struct tm tm;
    localtime_r(&now.tv_sec, &tm);
    const int year = tm.tm_year + 1900;
    const int ms = int(now.tv_nsec / 1000000);
    *p++ = '[';
    p = put2(p, year / 100 % 100);
    p = put2(p, year % 100);
    *p++ = '-';
    p = put2(p, tm.tm_mon + 1);
    *p++ = '-';
    p = put2(p, tm.tm_mday);
    *p++ = ' ';
    p = put2(p, tm.tm_hour);
    *p++ = ':';
    p = put2(p, tm.tm_min);
    *p++ = ':';
    p = put2(p, tm.tm_sec);
    *p++ = ' ';
    *p++ = char('0' + ms / 100);
    p = put2(p, ms % 100);
    *p++ = ']';
    *p = ' ';
}

const int STAMP_LEN = 26;

/*
 * UTF-8 of text into out (room for 3 bytes per UTF-16 unit). Returns the
 * end, or nullptr on an unpaired surrogate: the caller then takes Qt's own
 * encoder, so the bytes stay exactly what toUtf8() gives.
 */
char *putUtf8(char *out, const QString &text)
{
    const ushort *s = text.utf16();
    const ushort *end = s + text.size();
    while (s < end) {
        const uint c = *s++;
        if (c < 0x80) {
            *out++ = char(c);
        } else if (c < 0x800) {
            *out++ = char(0xc0 | (c >> 6));
            *out++ = char(0x80 | (c & 0x3f));
        } else if (c < 0xd800 || c > 0xdfff) {
            *out++ = char(0xe0 | (c >> 12));
            *out++ = char(0x80 | ((c >> 6) & 0x3f));
            *out++ = char(0x80 | (c & 0x3f));
        } else if (c < 0xdc00 && s < end && *s >= 0xdc00 && *s <= 0xdfff) {
            const uint u = 0x10000 + ((c - 0xd800) << 10) + (*s++ - 0xdc00);
            *out++ = char(0xf0 | (u >> 18));
            *out++ = char(0x80 | ((u >> 12) & 0x3f));
            *out++ = char(0x80 | ((u >> 6) & 0x3f));
            *out++ = char(0x80 | (u & 0x3f));
        } else {
            return nullptr;
        }
    }
    return out;
}

} // namespace

/**
 * Appends "[yyyy-MM-dd HH:mm:ss zzz] message" to the log file.
 *
 * The file is opened and closed for every message on purpose: each line is
 * on disk when the handler returns, and a file removed from outside is
 * recreated by the next message. The file lives in a shared directory, so it
 * is created 0600 by open(2) itself (no window with wider bits) and a
 * symbolic link planted under its name is not followed. The whole line goes
 * out in one write(2), so lines of other writers never split it. A message
 * that cannot be written is lost silently: the logger has nowhere to report.
 */
void printlogtofile(QtMsgType type, const QMessageLogContext &context, const QString &message)
{
    Q_UNUSED(type);
    Q_UNUSED(context);
    if (threadMuted)
        return;

    static QMutex mutex;
    QMutexLocker locker(&mutex);

    char stamp[STAMP_LEN];
    putStamp(stamp);
    // Room for 3 bytes per UTF-16 unit and the line feed; long lines (the
    // environment, packet dumps) take the heap.
    char stackLine[4096];
    std::unique_ptr<char[]> heapLine;
    size_t room = STAMP_LEN + 3 * size_t(message.size()) + 1;
    char *line = stackLine;
    if (room > sizeof stackLine) {
        heapLine.reset(new char[room]);
        line = heapLine.get();
    }
    std::memcpy(line, stamp, STAMP_LEN);
    char *end = putUtf8(line + STAMP_LEN, message);
    if (!end) {
        const QByteArray utf8 = message.toUtf8();
        room = STAMP_LEN + size_t(utf8.size()) + 1;
        heapLine.reset(new char[room]);
        line = heapLine.get();
        std::memcpy(line, stamp, STAMP_LEN);
        std::memcpy(line + STAMP_LEN, utf8.constData(), size_t(utf8.size()));
        end = line + room - 1;
    }
    *end++ = '\n';

    writeLine(line, size_t(end - line));
}

void setThreadLogMuted(bool muted) { threadMuted = muted; }

bool logGuardedByKernel() { return guardedByKernel(); }

namespace {

// This thread's capability sets (threads started later inherit them).
struct Capabilities
{
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct data[2] = {};
    bool read() { return ::syscall(SYS_capget, &header, data) == 0; }
    __user_cap_data_struct &fownerWord() { return data[CAP_TO_INDEX(CAP_FOWNER)]; }
};

} // namespace

bool hasFileOwnerOverride()
{
    Capabilities caps;
    return !caps.read() || (caps.fownerWord().effective & CAP_TO_MASK(CAP_FOWNER)) != 0;
}

bool dropFileOwnerOverride()
{
    Capabilities caps;
    if (!caps.read())
        return false;
    caps.fownerWord().effective &= ~CAP_TO_MASK(CAP_FOWNER);
    caps.fownerWord().permitted &= ~CAP_TO_MASK(CAP_FOWNER);
    caps.fownerWord().inheritable &= ~CAP_TO_MASK(CAP_FOWNER);
    return ::syscall(SYS_capset, &caps.header, caps.data) == 0;
}
