#include "CliApp.h"

#include <QCoreApplication>

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("zrui-cli"));
    CliApp cli;
    return cli.run(QCoreApplication::arguments().mid(1));
}
