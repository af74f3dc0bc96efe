#pragma once

/*
 * Configuration and journal of the stand-in token stack. Compiled into each
 * of the three libraries (hidden), so every library finds "tokensim.ini"
 * beside itself.
 */

// Body of an entry point the stand-in does not implement: it looks at no
// argument and does nothing.
#define ZRSIM_NOT_IMPLEMENTED(name) \
    long name(void) { return static_cast<long>(ZRSIM_NOT_SUPPORTED); }

#include "zrtoken.h"

namespace zrsim {

struct Config
{
    int pinMin = 6;
    int pinMax = 16;
    bool present = true;
    bool auxFail = false;
    char journalPath[1024] = {};
};

// Fills cfg from ZRTOKENSIM_CONF, else from "tokensim.ini" beside the library
// that holds this code. Keys that are missing or malformed keep their
// defaults; a missing file is not an error.
void readConfig(Config *cfg);

// Path of the configuration file that readConfig would read (for messages).
void configPath(char *out, unsigned long size);

// Appends one formatted line (a line feed is added) to the journal when one
// is configured; does nothing otherwise.
void journal(const Config &cfg, const char *format, ...) __attribute__((format(printf, 2, 3)));

} // namespace zrsim
