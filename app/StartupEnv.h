#pragma once

#include <QString>

/*
 * Pieces of the start-up sequence that stand on their own, so that tests
 * can check them without starting the whole process.
 */

// Language tag for the system locale name: "zh_CN" stays, any other name
// containing "zh" becomes "zh_TW", anything else keeps the part before "_".
QString translationTagForLocale(const QString &localeName);

// ":/uiserver.<tag>.qm", or the English file when that does not exist.
// Logs both "trans file=" lines.
QString chooseTranslationFile(const QString &localeName);

// "ZRUIConf.ini" in the working directory, else beside the executable;
// empty when neither exists.
QString locateConfigFile();

// "resources.rcc" in the working directory, else beside the executable;
// empty when neither exists.
QString locateResourceFile();
