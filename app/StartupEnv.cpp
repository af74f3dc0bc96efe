#include "StartupEnv.h"

#include <QCoreApplication>
#include <QDebug>
#include <QFile>
#include <QStringList>

/**
 * Kept on purpose: every Chinese name except exactly "zh_CN" (zh_HK, zh_SG,
 * zh_TW, ...) is served the Traditional Chinese translation; the test is a
 * case-sensitive substring test.
 */
QString translationTagForLocale(const QString &localeName)
{
    if (localeName.contains(QLatin1String("zh"))) {
        if (localeName == QLatin1String("zh_CN"))
            return localeName;
        return QStringLiteral("zh_TW");
    }
    return localeName.split(QLatin1Char('_'), Qt::KeepEmptyParts).first();
}

QString chooseTranslationFile(const QString &localeName)
{
    QString file = QStringLiteral(":/uiserver.") + translationTagForLocale(localeName)
                   + QStringLiteral(".qm");
    qDebug() << "trans file=" << file;
    if (!QFile::exists(file))
        file = QStringLiteral(":/uiserver.en.qm");
    // Logged a second time whether or not it changed.
    qDebug() << "trans file=" << file;
    return file;
}

// The working directory wins over the executable's directory.
static QString locateBesideOrHere(const QString &name)
{
    if (QFile::exists(name))
        return name;
    const QString besideExe = QCoreApplication::applicationDirPath() + QLatin1Char('/') + name;
    if (QFile::exists(besideExe))
        return besideExe;
    return QString();
}

QString locateConfigFile() { return locateBesideOrHere(QStringLiteral("ZRUIConf.ini")); }

QString locateResourceFile() { return locateBesideOrHere(QStringLiteral("resources.rcc")); }
