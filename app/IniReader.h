#pragma once

/**
 * Minimal INI reader used for the signature file. Returns the value of key
 * in section of filename, or an empty string. The result points into a
 * static buffer that the next call overwrites: not reentrant, start-up only.
 */
char *GetIniKeyString(char *section, char *key, char *filename);
