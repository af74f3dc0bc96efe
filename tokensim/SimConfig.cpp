#include "SimConfig.h"

#include <ctype.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <mutex>

namespace zrsim {

namespace {

char *trim(char *s)
{
    while (*s && isspace(static_cast<unsigned char>(*s)))
        ++s;
    size_t n = strlen(s);
    while (n > 0 && isspace(static_cast<unsigned char>(s[n - 1])))
        s[--n] = '\0';
    return s;
}

bool parseInt(const char *text, int *out)
{
    char *end = nullptr;
    const long v = strtol(text, &end, 10);
    if (end == text || *end != '\0' || v < -0x7fffffffL || v > 0x7fffffffL)
        return false;
    *out = static_cast<int>(v);
    return true;
}

void copyString(char *dst, size_t size, const char *src) { snprintf(dst, size, "%s", src); }

} // namespace

void configPath(char *out, unsigned long size)
{
    const char *env = getenv("ZRTOKENSIM_CONF");
    if (env && *env) {
        copyString(out, size, env);
        return;
    }
    // The directory of whichever library this copy of the code lives in.
    Dl_info info;
    memset(&info, 0, sizeof info);
    if (dladdr(reinterpret_cast<void *>(&configPath), &info) && info.dli_fname) {
        const char *slash = strrchr(info.dli_fname, '/');
        if (slash) {
            snprintf(out, size, "%.*s/tokensim.ini", static_cast<int>(slash - info.dli_fname),
                     info.dli_fname);
            return;
        }
    }
    copyString(out, size, "tokensim.ini");
}

namespace {

/*
 * The last file read, known by its identity and times: the server asks on
 * every request, and a real token stack answers from memory. A file replaced
 * or rewritten (tests do both while the server runs) is read again.
 */
struct ReadCache
{
    bool valid = false;
    char path[1024] = {};
    struct stat st = {};
    Config cfg;
};

bool sameFile(const struct stat &a, const struct stat &b)
{
    return a.st_dev == b.st_dev && a.st_ino == b.st_ino && a.st_size == b.st_size
           && a.st_mtim.tv_sec == b.st_mtim.tv_sec && a.st_mtim.tv_nsec == b.st_mtim.tv_nsec
           && a.st_ctim.tv_sec == b.st_ctim.tv_sec && a.st_ctim.tv_nsec == b.st_ctim.tv_nsec;
}

void parseConfig(const char *path, Config *cfg)
{
    *cfg = Config();
    FILE *f = fopen(path, "r");
    if (f) {
        char section[64] = {};
        char line[1024];
        while (fgets(line, sizeof line, f)) {
            // Comments run from ';' or '#' to the end of the line, also after a value.
            line[strcspn(line, ";#\r\n")] = '\0';
            char *s = trim(line);
            if (*s == '[') {
                char *close = strchr(s, ']');
                if (close) {
                    *close = '\0';
                    copyString(section, sizeof section, trim(s + 1));
                }
                continue;
            }
            char *eq = strchr(s, '=');
            if (!eq)
                continue;
            *eq = '\0';
            const char *key = trim(s);
            const char *value = trim(eq + 1);
            int n = 0;
            if (strcmp(section, "pin") == 0 && strcmp(key, "min") == 0 && parseInt(value, &n))
                cfg->pinMin = n;
            else if (strcmp(section, "pin") == 0 && strcmp(key, "max") == 0 && parseInt(value, &n))
                cfg->pinMax = n;
            else if (strcmp(section, "token") == 0 && strcmp(key, "present") == 0
                     && parseInt(value, &n))
                cfg->present = n != 0;
            else if (strcmp(section, "aux") == 0 && strcmp(key, "fail") == 0 && parseInt(value, &n))
                cfg->auxFail = n != 0;
            else if (strcmp(section, "journal") == 0 && strcmp(key, "path") == 0)
                copyString(cfg->journalPath, sizeof cfg->journalPath, value);
        }
        fclose(f);
    }
}

} // namespace

void readConfig(Config *cfg)
{
    static std::mutex mutex;
    static ReadCache cache;
    *cfg = Config();
    char path[1024];
    configPath(path, sizeof path);
    struct stat st;
    if (stat(path, &st) != 0) {
        std::lock_guard<std::mutex> lock(mutex);
        cache.valid = false;
    } else {
        std::lock_guard<std::mutex> lock(mutex);
        if (!cache.valid || strcmp(cache.path, path) != 0 || !sameFile(cache.st, st)) {
            // Known by the look taken before reading: a change meanwhile shows next time.
            parseConfig(path, &cache.cfg);
            copyString(cache.path, sizeof cache.path, path);
            cache.st = st;
            cache.valid = true;
        }
        *cfg = cache.cfg;
    }

    const char *env = getenv("ZRTOKENSIM_JOURNAL");
    if (env && *env)
        copyString(cfg->journalPath, sizeof cfg->journalPath, env);
}

void journal(const Config &cfg, const char *format, ...)
{
    if (cfg.journalPath[0] == '\0')
        return;
    char line[512];
    va_list args;
    va_start(args, format);
    int n = vsnprintf(line, sizeof line - 1, format, args);
    va_end(args);
    if (n < 0)
        return;
    if (n > static_cast<int>(sizeof line) - 2)
        n = static_cast<int>(sizeof line) - 2;
    line[n++] = '\n';
    // One write() per line with O_APPEND: lines of concurrent callers (and
    // processes) never interleave, and nothing sits in a user-space buffer.
    const int fd = open(cfg.journalPath, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600);
    if (fd < 0)
        return;
    ssize_t written = write(fd, line, static_cast<size_t>(n));
    (void)written;
    close(fd);
}

} // namespace zrsim
