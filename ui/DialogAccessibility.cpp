#include "DialogAccessibility.h"

#include <QAccessible>
#include <QAccessibleWidget>
#include <QWidget>

namespace DialogAccessibility {

namespace {
QAccessibleInterface *dialogInterface(const QString &className, QObject *object)
{
    if (!object || !object->isWidgetType())
        return nullptr;
    auto *widget = static_cast<QWidget *>(object);
    if (className == QLatin1String("MessageDialog"))
        return new QAccessibleWidget(widget, QAccessible::AlertMessage);
    if (className == QLatin1String("PINDialog") || className == QLatin1String("CertListDialog")
        || className == QLatin1String("WaitingDialog"))
        return new QAccessibleWidget(widget, QAccessible::Dialog);
    return nullptr;
}
} // namespace

void install()
{
    static const bool installed = [] {
        QAccessible::installFactory(dialogInterface);
        return true;
    }();
    Q_UNUSED(installed)
}

} // namespace DialogAccessibility
