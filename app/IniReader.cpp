#include "IniReader.h"

#include <cstdio>
#include <cstring>

namespace {

constexpr size_t LINE_SIZE = 1024;

// Result buffer: the caller gets a pointer into it (see the header).
char tmpstr[LINE_SIZE];
char emptyString[1];

} // namespace

/**
 * Minimal line-by-line INI lookup used for the signature file.
 *
 * Kept on purpose, because the signature files are written for exactly this
 * reader: once the section header has been seen the reader never leaves the
 * section; the key is found by substring anywhere in a line holding "=";
 * lines starting with "#" or "//" are comments, a single "/" is not; a last
 * line without a line feed is never looked at; nothing is trimmed.
 *
 * A line that does not fit the 1024-byte line buffer (line feed included)
 * is consumed up to its line feed and ignored as a whole, so it can neither
 * match nor overrun the buffer.
 */
char *GetIniKeyString(char *section, char *key, char *filename)
{
    if (!section || !key || !filename)
        return emptyString;

    FILE *fp = fopen(filename, "r");
    if (!fp)
        return emptyString;

    bool inSection = false;
    bool overlong = false;
    char line[LINE_SIZE];
    size_t pos = 0;

    for (;;) {
        if (feof(fp))
            break;
        const int c = fgetc(fp);
        if (c == EOF)
            break;

        if (c != '\n') {
            // Keep one byte for the terminator that replaces the line feed.
            if (pos < LINE_SIZE - 1)
                line[pos++] = static_cast<char>(c);
            else
                overlong = true;
            continue;
        }

        line[pos] = '\0';
        if (pos > 0 && line[pos - 1] == '\r')
            line[pos - 1] = '\0';
        pos = 0;
        if (overlong) {
            overlong = false;
            continue;
        }

        if (strchr(line, '=') && inSection) {
            if (!strstr(line, key))
                continue;
            if (line[0] == '#')
                continue;
            if (line[0] == '/' && line[1] == '/')
                continue;
            const char *value = strchr(line, '=') + 1;
            // The value is shorter than the line, so it always fits.
            strcpy(tmpstr, value);
            fclose(fp);
            return tmpstr;
        }

        const int headerLen = snprintf(tmpstr, sizeof(tmpstr), "[%s]", section);
        if (headerLen > 0 && static_cast<size_t>(headerLen) < sizeof(tmpstr)
            && strncmp(tmpstr, line, static_cast<size_t>(headerLen)) == 0)
            inSection = true;
    }

    fclose(fp);
    return emptyString;
}
