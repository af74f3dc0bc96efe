#pragma once

// Signature check of the resource file against "integrityprotect.ini".
// dir ends with "/". 1 when the signature verifies, else 0.
int FileIntegrityProtect(char *dir, char *filename);
int FileVerifySignature(char *dir, char *filename, char *signKey);
unsigned char *StringToBin(unsigned char *out, unsigned char *hex, unsigned long digits);
int ReadFileContent(char *path, unsigned char **data, unsigned long *size);
